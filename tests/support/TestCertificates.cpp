#include "support/TestCertificates.h"

#include <fstream>
#include <sstream>
#include <vector>

#include "platform/PlatformProcess.h"

namespace Tovrel {
namespace Testing {

namespace fs = std::filesystem;

namespace {

constexpr const char* kOpenssl = "/usr/bin/openssl";
constexpr const char* kNewKey = "-newkey rsa:2048 -nodes";

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

}  // namespace

bool TestCertificates::Run(const fs::path& folder, const std::string& arguments, std::string* why) {
  PlatformProcess process;
  const std::string log = (folder / "openssl.log").string();
  process.RedirectOutput(log, log + ".err");
  int exitCode = -1;
  if (!process.Start(kOpenssl, Words(arguments)) || !process.Wait(60000, &exitCode) || exitCode != 0) {
    std::ifstream err(log + ".err");
    std::string line;
    std::getline(err, line);
    *why = "openssl " + arguments + " failed: " + line;
    return false;
  }
  return true;
}

bool TestCertificates::MakeCa(const fs::path& folder, const std::string& name, std::string* why) {
  const std::string base = (folder / name).string();
  return Run(folder, std::string("req -x509 ") + kNewKey + " -keyout " + base + ".key -out " + base +
                         ".crt -days 3650 -subj /CN=Tovrel-test-" + name,
             why);
}

bool TestCertificates::MakeServer(const fs::path& folder, const std::string& name, const std::string& host,
                                  int days, Pair* pair, std::string* why) {
  // The host in the common name and as a DNS name too: wine's WinHTTP
  // matches an address against those, not against IP entries.
  std::string altNames = "DNS:" + host;
  if (host == "127.0.0.1") altNames += ",IP:127.0.0.1,DNS:localhost";
  const std::string base = (folder / name).string();
  std::ofstream(base + ".ext") << "subjectAltName=" << altNames << "\n";
  pair->certificate = base + ".crt";
  pair->key = base + ".key";
  return Run(folder, std::string("req ") + kNewKey + " -keyout " + pair->key + " -out " + base + ".csr -subj /CN=" + host,
             why) &&
         Run(folder, "x509 -req -in " + base + ".csr -CA " + ca + " -CAkey " + (folder / "ca.key").string() +
                         " -CAcreateserial -out " + pair->certificate + " -days " + std::to_string(days) +
                         " -extfile " + base + ".ext",
             why);
}

bool TestCertificates::Make(const fs::path& folder, std::string* why) {
  if (!fs::exists(kOpenssl)) {
    *why = std::string("no ") + kOpenssl + " here to make certificates with";
    return false;
  }
  fs::create_directories(folder);
  ca = (folder / "ca.crt").string();
  otherCa = (folder / "other-ca.crt").string();
  // -days -1 ends the certificate's validity a day before it starts: expired.
  return MakeCa(folder, "ca", why) && MakeCa(folder, "other-ca", why) &&
         MakeServer(folder, "right", "127.0.0.1", 30, &right, why) &&
         MakeServer(folder, "wrong-host", "fxcache.elsewhere.example", 30, &wrongHost, why) &&
         MakeServer(folder, "expired", "127.0.0.1", -1, &expired, why);
}

}  // namespace Testing
}  // namespace Tovrel
