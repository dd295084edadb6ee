#include "support/RemoteServer.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/HttpClient.h"
#include "platform/SystemError.h"

namespace Tovrel {
namespace Testing {

namespace fs = std::filesystem;

namespace {

constexpr const char* kNginx = "/usr/sbin/nginx";
constexpr const char* kPython = "/usr/bin/python3";

// Why the last start of a server gave none.
std::string& Why() {
  static std::string why;
  return why;
}

// The first line of what a server wrote to `file` (its messages), if any.
std::string FirstLineOf(const std::string& file) {
  std::ifstream in(fs::u8path(file));
  std::string line;
  std::getline(in, line);
  return line.empty() ? std::string() : ": \"" + line + "\"";
}

std::string UrlFromEnvironment(const char* variable) {
  const char* url = std::getenv(variable);
  return url != nullptr ? std::string(url) : std::string();
}

// A whole nginx configuration for a server run by a test: in the
// foreground, its files in `folder`, `http` inside its http block.
std::string NginxMain(const fs::path& folder, const std::string& http) {
  const std::string f = folder.string();
  return "daemon off;\nmaster_process off;\nworker_processes 1;\n"
         "error_log " + f + "/error.log;\npid " + f + "/nginx.pid;\n"
         "events { worker_connections 64; }\n"
         "http {\n  access_log off;\n"
         "  client_body_temp_path " + f + "/body;\n  proxy_temp_path " + f + "/proxy;\n"
         "  fastcgi_temp_path " + f + "/fastcgi;\n  uwsgi_temp_path " + f + "/uwsgi;\n"
         "  scgi_temp_path " + f + "/scgi;\n" + http + "}\n";
}

std::string NginxConfig(const fs::path& folder, std::uint16_t port) {
  const std::string f = folder.string();
  return NginxMain(folder,
                   "  server {\n    listen 127.0.0.1:" + std::to_string(port) + ";\n"
                   "    root " + f + "/store;\n    client_max_body_size 8m;\n"
                   "    location / {\n      dav_methods PUT DELETE;\n      create_full_put_path on;\n      autoindex on;\n"
                   "      dav_access user:rw group:r all:r;\n    }\n  }\n");
}

// `text` with its one `from` replaced by `to`; false when `from` is not there once.
bool ReplaceOnce(std::string* text, const std::string& from, const std::string& to) {
  const std::size_t at = text->find(from);
  if (at == std::string::npos || text->find(from, at + 1) != std::string::npos) return false;
  text->replace(at, from.size(), to);
  return true;
}

// The nginx block of docs/REMOTE.md's "Setting up a team server".
std::string DocumentedTeamConfig() {
  std::ifstream in(fs::u8path(std::string(TOVREL_TESTS_DIR) + "/../docs/REMOTE.md"));
  const std::string doc((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t section = doc.find("## Setting up a team server");
  const std::size_t start = doc.find("```nginx\n", section);
  const std::size_t end = doc.find("```\n", start + 9);
  if (section == std::string::npos || start == std::string::npos || end == std::string::npos) return std::string();
  return doc.substr(start + 9, end - start - 9);
}

}  // namespace

std::uint16_t RemoteServer::PickPort(int attempt) {
  const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  return static_cast<std::uint16_t>(20000 + (now / 1000 + static_cast<std::uint64_t>(attempt) * 7919) % 40000);
}

std::string RemoteServer::DeadUrl() {
  // Port 9 (discard) is not served on the test machines.
  return "http://127.0.0.1:9/dead/";
}

std::unique_ptr<RemoteServer> RemoteServer::Given(const char* variable) {
  const std::string url = UrlFromEnvironment(variable);
  if (url.empty()) return nullptr;
  std::unique_ptr<RemoteServer> server(new RemoteServer);
  server->url_ = url;
  return server;
}

int RemoteServer::Put(const std::string& url, const std::vector<std::uint8_t>& bytes) {
  HttpClient::Limits limits;
  limits.connectMilliseconds = 1000;  // a loaded test machine
  limits.transferMilliseconds = 3000;
  return HttpClient::Put(url, bytes.data(), bytes.size(), limits).status;
}

const std::string& RemoteServer::WhyNone() { return Why(); }

std::unique_ptr<RemoteServer> RemoteServer::StartNginx(const fs::path& folder) {
  if (auto given = Given("TOVREL_TEST_NGINX_URL")) return given;
  if (!fs::exists(kNginx)) {
    Why() = std::string("no nginx here (no ") + kNginx + ", and TOVREL_TEST_NGINX_URL names no server)";
    return nullptr;
  }
  fs::create_directories(folder / "store");
  const auto command = [&folder](std::uint16_t port) {
    std::ofstream(folder / "nginx.conf") << NginxConfig(folder, port);
    return std::vector<std::string>{kNginx, "-p", folder.string(), "-c", (folder / "nginx.conf").string()};
  };
  auto server = StartOnAnyPort("nginx", command, (folder / "nginx.out").string());
  if (server) server->store_ = folder / "store";
  return server;
}

std::unique_ptr<RemoteServer> RemoteServer::StartFaults(const fs::path& folder) {
  if (auto given = Given("TOVREL_TEST_FAULT_URL")) return given;
  if (!fs::exists(kPython)) {
    Why() = std::string("no fault server here (no ") + kPython + ", and TOVREL_TEST_FAULT_URL names no server)";
    return nullptr;
  }
  fs::create_directories(folder);
  const std::string script = std::string(TOVREL_TESTS_DIR) + "/remote/fault_server.py";
  const auto command = [&script](std::uint16_t port) {
    return std::vector<std::string>{kPython, script, std::to_string(port)};
  };
  return StartOnAnyPort("the fault server", command, (folder / "faults.out").string());
}

std::unique_ptr<RemoteServer> RemoteServer::StartDelayed(const fs::path& folder, const std::string& target,
                                                         std::uint32_t milliseconds) {
  if (!fs::exists(kPython)) {
    Why() = std::string("no delaying proxy here (no ") + kPython + ")";
    return nullptr;
  }
  fs::create_directories(folder);
  const std::size_t colon = target.find(':', target.find("://") + 3);
  const std::string targetPort = target.substr(colon + 1, target.find('/', colon) - colon - 1);
  const std::string script = std::string(TOVREL_TESTS_DIR) + "/remote/delay_proxy.py";
  const auto command = [&](std::uint16_t port) {
    return std::vector<std::string>{kPython, script, std::to_string(port), targetPort, std::to_string(milliseconds)};
  };
  return StartOnAnyPort("the delaying proxy", command, (folder / "proxy.out").string());
}

std::string RemoteServer::TeamConfig(const fs::path& folder, std::uint16_t port, const TestCertificates& certificates) {
  std::string documented = DocumentedTeamConfig();
  const std::size_t server = documented.find("server {");
  if (server == std::string::npos || !ReplaceOnce(&documented, "READ-TOKEN-GOES-HERE", kReadToken) ||
      !ReplaceOnce(&documented, "WRITE-TOKEN-GOES-HERE", kWriteToken)) {
    Why() = "docs/REMOTE.md holds no team server configuration with a server block and two tokens";
    return std::string();
  }
  std::string http = documented.substr(0, server);
  const std::string block = documented.substr(server);
  const TestCertificates::Pair* pairs[] = {&certificates.right, &certificates.wrongHost, &certificates.expired};
  for (int i = 0; i < 3; ++i) {
    std::string copy = block;
    if (!ReplaceOnce(&copy, "listen 443 ssl;", "listen 127.0.0.1:" + std::to_string(port + i) + " ssl;") ||
        !ReplaceOnce(&copy, "/etc/nginx/tls/fxcache.crt", pairs[i]->certificate) ||
        !ReplaceOnce(&copy, "/etc/nginx/tls/fxcache.key", pairs[i]->key) ||
        !ReplaceOnce(&copy, "root /srv;", "root " + (folder / "store").string() + ";")) {
      Why() = "the team server block of docs/REMOTE.md no longer has the lines the tests change";
      return std::string();
    }
    http += copy;
  }
  std::ofstream(folder / "basic-users") << kBasicUser << ":{PLAIN}" << kBasicPassword << "\n";
  http += "server {\n  listen 127.0.0.1:" + std::to_string(port + 3) + ";\n  root " + (folder / "store").string() +
          ";\n  client_max_body_size 2m;\n  location /fx/ {\n    auth_basic fxcache;\n    auth_basic_user_file " +
          (folder / "basic-users").string() +
          ";\n    dav_methods PUT;\n    create_full_put_path on;\n    autoindex on;\n  }\n}\n";
  return NginxMain(folder, http);
}

std::unique_ptr<RemoteServer> RemoteServer::GivenTeam() {
  std::istringstream given(UrlFromEnvironment("TOVREL_TEST_TEAM"));
  TeamUrls team;
  if (!(given >> team.right >> team.wrongHost >> team.expired >> team.basic >> team.ca >> team.otherCa)) return nullptr;
  std::unique_ptr<RemoteServer> server(new RemoteServer);
  server->url_ = team.right;
  // The runner's files are Linux paths: a Windows process finds them on
  // wine's drive Z:, which is the Linux root.
#if defined(_WIN32)
  for (std::string* path : {&team.ca, &team.otherCa}) {
    if (!path->empty() && path->front() == '/') path->insert(0, "Z:");
  }
#endif
  server->team_ = team;
  return server;
}

std::unique_ptr<RemoteServer> RemoteServer::StartTeam(const fs::path& folder) {
  if (auto given = GivenTeam()) return given;
  if (!fs::exists(kNginx)) {
    Why() = std::string("no nginx here (no ") + kNginx + ", and TOVREL_TEST_TEAM names no team server)";
    return nullptr;
  }
  TestCertificates certificates;
  if (!certificates.Make(folder / "tls", &Why())) return nullptr;
  fs::create_directories(folder / "store" / "fx");
  if (TeamConfig(folder, 20000, certificates).empty()) return nullptr;
  const auto command = [&folder, &certificates](std::uint16_t port) {
    std::ofstream(folder / "nginx.conf") << TeamConfig(folder, port, certificates);
    return std::vector<std::string>{kNginx, "-p", folder.string(), "-c", (folder / "nginx.conf").string()};
  };
  HttpClient::Access probe;
  probe.caFile = certificates.ca;
  auto server = StartOnAnyPort("the team server", command, (folder / "nginx.out").string(),
                               "https://127.0.0.1:PORT/fx/", probe);
  if (!server) return nullptr;
  server->store_ = folder / "store";
  const std::string port = server->url_.substr(18, server->url_.find('/', 18) - 18);
  const auto at = [&port](const std::string& scheme, int offset) {
    return scheme + "://127.0.0.1:" + std::to_string(std::stoi(port) + offset) + "/fx/";
  };
  server->team_ =
      TeamUrls{server->url_, at("https", 1), at("https", 2), at("http", 3), certificates.ca, certificates.otherCa};
  return server;
}

std::unique_ptr<RemoteServer> RemoteServer::StartOnAnyPort(const std::string& what, const CommandFor& command,
                                                           const std::string& output, const std::string& url,
                                                           const HttpClient::Access& probe) {
  constexpr int kPorts = 8;
  for (int attempt = 0; attempt < kPorts; ++attempt) {
    const std::uint16_t port = PickPort(attempt);
    std::string portUrl = url;
    portUrl.replace(portUrl.find("PORT"), 4, std::to_string(port));
    auto server = Start(command(port), output, portUrl, probe);
    if (server) return server;
  }
  Why() = what + " did not start on any of " + std::to_string(kPorts) + " ports; on the last, " + Why();
  return nullptr;
}

std::unique_ptr<RemoteServer> RemoteServer::Start(const std::vector<std::string>& command, const std::string& output,
                                                  const std::string& url, const HttpClient::Access& probe) {
  std::unique_ptr<RemoteServer> server(new RemoteServer);
  server->process_.reset(new PlatformProcess);
  server->process_->RedirectOutput(output, output + ".err");
  const std::vector<std::string> arguments(command.begin() + 1, command.end());
  if (!server->process_->Start(command[0], arguments)) {
    Why() = command[0] + " could not be started (system error " + std::to_string(SystemError::Last()) + ")";
    return nullptr;
  }
  server->url_ = url;
  if (!server->WaitUntilAnswering(probe)) {
    Why() += FirstLineOf(output + ".err");
    return nullptr;
  }
  return server;
}

bool RemoteServer::WaitUntilAnswering(const HttpClient::Access& probe) {
  HttpClient::Limits limits;
  limits.connectMilliseconds = 200;
  limits.transferMilliseconds = 500;
  limits.maxBodyBytes = 1 << 20;
  for (int i = 0; i < 100; ++i) {
    int exitCode = 0;
    if (process_->Wait(0, &exitCode)) {  // it ended: the port was taken, say
      Why() = "it ended with status " + std::to_string(exitCode);
      return false;
    }
    if (HttpClient::Get(url_ + "probe-of-a-name-never-stored", limits, probe).answered) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  Why() = "it did not answer at " + url_ + " within 5 s";
  return false;
}

void RemoteServer::Stop() {
  if (!process_) return;
  process_->Kill();
  int exitCode = 0;
  process_->Wait(5000, &exitCode);
  process_.reset();
}

RemoteServer::~RemoteServer() { Stop(); }

}  // namespace Testing
}  // namespace Tovrel
