// TestCertificates: a small private PKI for the HTTPS tests, made with the
// openssl command in a folder: a CA, a second CA that signed nothing the
// servers use, and server certificates signed by the first CA: one for
// 127.0.0.1 and localhost, one for another host name, and one that has
// expired.
//
// Owned by the test that makes it; the files stay in its folder.
// Thread-safety: one thread.
#ifndef TOVREL_TESTS_TESTCERTIFICATES_H
#define TOVREL_TESTS_TESTCERTIFICATES_H

#include <filesystem>
#include <string>

namespace Tovrel {
namespace Testing {

class TestCertificates {
 public:
  struct Pair {
    std::string certificate;  // PEM
    std::string key;          // PEM
  };

  // Makes them all in `folder`; false, with the reason in *why, when the
  // openssl command is missing or fails.
  bool Make(const std::filesystem::path& folder, std::string* why);

  std::string ca;       // the CA that signed the servers' certificates
  std::string otherCa;  // a CA that signed none of them
  Pair right;           // for 127.0.0.1 and localhost, valid now
  Pair wrongHost;       // for fxcache.elsewhere.example only
  Pair expired;         // for 127.0.0.1, expired a day ago

 private:
  bool Run(const std::filesystem::path& folder, const std::string& arguments, std::string* why);
  bool MakeCa(const std::filesystem::path& folder, const std::string& name, std::string* why);
  bool MakeServer(const std::filesystem::path& folder, const std::string& name, const std::string& host,
                  int days, Pair* pair, std::string* why);
};

}  // namespace Testing
}  // namespace Tovrel

#endif
