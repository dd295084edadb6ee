// RemoteServer: an HTTP server for the remote store's tests, on 127.0.0.1
// at a free port, stopped when the object goes: nginx with its WebDAV PUT
// serving a folder (as a studio would deploy it), or the fault server
// (tests/remote/fault_server.py) whose paths each go wrong in one way.
//
// A test process that cannot start Linux programs (the Windows tests under
// wine) uses servers that its runner started instead, named by the
// environment variables TOVREL_TEST_NGINX_URL and TOVREL_TEST_FAULT_URL.
// Null when no server can be had, and WhyNone() tells why: the test then
// ends through TOVREL_SKIP_OR_FAIL (support/TestRun.h), which fails it in
// the project's own test runs.
//
// Owned by the test that starts it. Thread-safety: one thread.
#ifndef TOVREL_TESTS_REMOTESERVER_H
#define TOVREL_TESTS_REMOTESERVER_H

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/HttpClient.h"
#include "platform/PlatformProcess.h"
#include "support/TestCertificates.h"

namespace Tovrel {
namespace Testing {

class RemoteServer {
 public:
  // nginx storing what is PUT under `folder`/store.
  static std::unique_ptr<RemoteServer> StartNginx(const std::filesystem::path& folder);
  // The fault server (/object/ answers with what was last PUT to /ok/).
  static std::unique_ptr<RemoteServer> StartFaults(const std::filesystem::path& folder);
  // A proxy (tests/remote/delay_proxy.py) in front of the server at
  // `target` ("http://127.0.0.1:PORT/..."), every connection delayed by
  // `milliseconds`: a server across a network, for the benchmarks.
  static std::unique_ptr<RemoteServer> StartDelayed(const std::filesystem::path& folder, const std::string& target,
                                                    std::uint32_t milliseconds);

  // A team server: nginx serving the configuration that docs/REMOTE.md
  // gives ("Setting up a team server"), verbatim but for the lines it
  // marks as a studio's own, with certificates of TestCertificates made in
  // `folder`. Beside it, on ports of its own, the same server block with
  // the wrong host's and the expired certificate, and the store behind
  // basic authentication on plain HTTP. A test process that cannot start
  // Linux programs uses the one its runner started, named by the
  // environment variable TOVREL_TEST_TEAM (the six fields below, in order,
  // separated by blanks).
  struct TeamUrls {
    std::string right;      // https://127.0.0.1:PORT/fx/
    std::string wrongHost;  // a certificate for another host name
    std::string expired;    // an expired certificate
    std::string basic;      // http://127.0.0.1:PORT/fx/, basic authentication (kBasicUser, kBasicPassword)
    std::string ca;         // the CA that signed the certificates (a path this process can open)
    std::string otherCa;    // a CA that signed none of them
  };
  static constexpr const char* kReadToken = "4f1d9c0b7e2a6358read";
  static constexpr const char* kWriteToken = "a83be1f07c4d9265write";
  static constexpr const char* kBasicUser = "ann";
  static constexpr const char* kBasicPassword = "s3cret@p%ss";  // nginx reads a password up to a colon
  static std::unique_ptr<RemoteServer> StartTeam(const std::filesystem::path& folder);
  const TeamUrls& Team() const { return team_; }
  ~RemoteServer();
  RemoteServer(const RemoteServer&) = delete;
  RemoteServer& operator=(const RemoteServer&) = delete;

  // "http://127.0.0.1:PORT/"
  const std::string& Url() const { return url_; }
  // Where nginx keeps what is PUT (empty for a server this process did not start).
  const std::filesystem::path& Store() const { return store_; }
  // Ends the server (the port then refuses connections).
  void Stop();
  // Why the last StartNginx or StartFaults of this process gave null.
  static const std::string& WhyNone();
  // A URL on which nothing listens.
  static std::string DeadUrl();
  // PUTs `bytes` to `url` with bounds for a loaded machine; the status (0
  // without an answer).
  static int Put(const std::string& url, const std::vector<std::uint8_t>& bytes);

 private:
  RemoteServer() = default;
  // The server the test's runner started, named by `variable`; null without one.
  static std::unique_ptr<RemoteServer> Given(const char* variable);
  // The team server the runner started (TOVREL_TEST_TEAM); null without one.
  static std::unique_ptr<RemoteServer> GivenTeam();
  // The command that starts a server on a port.
  using CommandFor = std::function<std::vector<std::string>(std::uint16_t port)>;
  // Starts the server `what` on one port after another (8 at most); null,
  // with the reason kept for WhyNone, when it answers on none.
  // `url` is the first URL that the server answers on, with PORT in place
  // of the port; `probe` what its probe is sent with.
  static std::unique_ptr<RemoteServer> StartOnAnyPort(const std::string& what, const CommandFor& command,
                                                      const std::string& output,
                                                      const std::string& url = "http://127.0.0.1:PORT/",
                                                      const HttpClient::Access& probe = HttpClient::Access());
  static std::unique_ptr<RemoteServer> Start(const std::vector<std::string>& command, const std::string& output,
                                             const std::string& url, const HttpClient::Access& probe);
  // The team server's configuration on ports `port` to `port` + 3; empty,
  // with the reason kept for WhyNone, when docs/REMOTE.md no longer holds
  // what it is made from.
  static std::string TeamConfig(const std::filesystem::path& folder, std::uint16_t port,
                                const TestCertificates& certificates);
  static std::uint16_t PickPort(int attempt);
  // True once the server answers; false, with the reason kept for
  // WhyNone, when it ends first or does not answer within 5 s.
  bool WaitUntilAnswering(const HttpClient::Access& probe);

  std::unique_ptr<PlatformProcess> process_;
  std::string url_;
  std::filesystem::path store_;
  TeamUrls team_;
};

}  // namespace Testing
}  // namespace Tovrel

#endif
