#include "support/RemoteServer.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
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

std::string NginxConfig(const fs::path& folder, std::uint16_t port) {
  const std::string f = folder.string();
  return "daemon off;\nmaster_process off;\nworker_processes 1;\n"
         "error_log " + f + "/error.log;\npid " + f + "/nginx.pid;\n"
         "events { worker_connections 64; }\n"
         "http {\n  access_log off;\n"
         "  client_body_temp_path " + f + "/body;\n  proxy_temp_path " + f + "/proxy;\n"
         "  fastcgi_temp_path " + f + "/fastcgi;\n  uwsgi_temp_path " + f + "/uwsgi;\n"
         "  scgi_temp_path " + f + "/scgi;\n"
         "  server {\n    listen 127.0.0.1:" + std::to_string(port) + ";\n"
         "    root " + f + "/store;\n    client_max_body_size 8m;\n"
         "    location / {\n      dav_methods PUT DELETE;\n      create_full_put_path on;\n      autoindex on;\n"
         "      dav_access user:rw group:r all:r;\n    }\n  }\n}\n";
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

std::unique_ptr<RemoteServer> RemoteServer::StartOnAnyPort(const std::string& what, const CommandFor& command,
                                                           const std::string& output) {
  constexpr int kPorts = 8;
  for (int attempt = 0; attempt < kPorts; ++attempt) {
    const std::uint16_t port = PickPort(attempt);
    auto server = Start(command(port), output, port);
    if (server) return server;
  }
  Why() = what + " did not start on any of " + std::to_string(kPorts) + " ports; on the last, " + Why();
  return nullptr;
}

std::unique_ptr<RemoteServer> RemoteServer::Start(const std::vector<std::string>& command, const std::string& output,
                                                  std::uint16_t port) {
  std::unique_ptr<RemoteServer> server(new RemoteServer);
  server->process_.reset(new PlatformProcess);
  server->process_->RedirectOutput(output, output + ".err");
  const std::vector<std::string> arguments(command.begin() + 1, command.end());
  if (!server->process_->Start(command[0], arguments)) {
    Why() = command[0] + " could not be started (system error " + std::to_string(SystemError::Last()) + ")";
    return nullptr;
  }
  server->url_ = "http://127.0.0.1:" + std::to_string(port) + "/";
  if (!server->WaitUntilAnswering()) {
    Why() += FirstLineOf(output + ".err");
    return nullptr;
  }
  return server;
}

bool RemoteServer::WaitUntilAnswering() {
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
    if (HttpClient::Get(url_ + "probe-of-a-name-never-stored", limits).answered) return true;
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
