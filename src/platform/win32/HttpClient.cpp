#include "platform/HttpClient.h"

#include <windows.h>
#include <winhttp.h>

#include <algorithm>

#include "platform/WideText.h"
#include "platform/win32/ServerCertificateCheck.h"

namespace Tovrel {

namespace {

// Closes a WinHTTP handle when it goes.
class Handle {
 public:
  explicit Handle(HINTERNET handle) : handle_(handle) {}
  ~Handle() {
    if (handle_ != nullptr) WinHttpCloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HINTERNET Get() const { return handle_; }
  // Forgets a handle that was closed elsewhere.
  void Forget() { handle_ = nullptr; }

 private:
  HINTERNET handle_;
};

std::string Failure(const char* step) {
  const DWORD error = GetLastError();
  const std::string code = " (WinHTTP error " + std::to_string(error) + ")";
  switch (error) {
    case ERROR_WINHTTP_SECURE_FAILURE:
    case ERROR_WINHTTP_SECURE_INVALID_CA:
    case ERROR_WINHTTP_SECURE_CERT_DATE_INVALID:
    case ERROR_WINHTTP_SECURE_CERT_CN_INVALID:
    case ERROR_WINHTTP_SECURE_INVALID_CERT:
    case ERROR_WINHTTP_SECURE_CERT_REVOKED:
    case ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE:
      return "the server's certificate did not verify" + code;
    case ERROR_WINHTTP_SECURE_CHANNEL_ERROR:
      return "no secure connection (a certificate that did not verify, or no protocol in common)" + code;
    default:
      return std::string(step) + " failed" + code;
  }
}

struct Target {
  std::wstring host;
  std::wstring path;
  INTERNET_PORT port = 0;
  bool secure = false;
};

bool Crack(const std::string& url, Target* target) {
  const std::wstring wide = WideText::FromUtf8(url);
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = static_cast<DWORD>(-1);
  parts.dwUrlPathLength = static_cast<DWORD>(-1);
  parts.dwExtraInfoLength = static_cast<DWORD>(-1);
  if (!WinHttpCrackUrl(wide.c_str(), static_cast<DWORD>(wide.size()), 0, &parts)) return false;
  target->host.assign(parts.lpszHostName, parts.dwHostNameLength);
  target->path.assign(parts.lpszUrlPath, parts.dwUrlPathLength);
  if (parts.lpszExtraInfo != nullptr) target->path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  target->port = parts.nPort;
  target->secure = parts.nScheme == INTERNET_SCHEME_HTTPS;
  return true;
}

bool ReadBody(HINTERNET request, ULONGLONG deadline, std::uint64_t limit, HttpClient::Response* response) {
  std::vector<std::uint8_t> chunk(64 * 1024);
  for (;;) {
    if (GetTickCount64() > deadline) {
      response->timedOut = true;
      response->error = "the answer took longer than allowed";
      return false;
    }
    DWORD got = 0;
    if (!WinHttpReadData(request, chunk.data(), static_cast<DWORD>(chunk.size()), &got)) {
      response->timedOut = GetLastError() == ERROR_WINHTTP_TIMEOUT;
      response->error = Failure("reading the answer");
      return false;
    }
    if (got == 0) return true;
    if (response->body.size() + got > limit) {
      response->tooLong = true;
      response->error = "the answer is longer than allowed";
      return false;
    }
    response->body.insert(response->body.end(), chunk.begin(), chunk.begin() + got);
  }
}


// Sends the request's headers, then its body, and waits for the answer.
// The body goes only after the server's certificate passed the check: no
// object reaches a server that did not verify, even where closing the
// request in the check's callback does not stop its headers.
bool SendRequest(HINTERNET request, const std::uint8_t* bytes, std::size_t size, const ServerCertificateCheck& check) {
  if (!WinHttpSendRequest(request, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0,
                          static_cast<DWORD>(size), 0)) {
    return false;
  }
  if (check.Refused()) return false;
  while (size != 0) {
    DWORD written = 0;
    const auto chunk = static_cast<DWORD>(std::min<std::size_t>(size, std::size_t{1} << 20));
    if (!WinHttpWriteData(request, bytes, chunk, &written) || written == 0) return false;
    bytes += written;
    size -= written;
  }
  return WinHttpReceiveResponse(request, nullptr) != FALSE;
}

}  // namespace

HttpClient::Response HttpClient::Exchange(const std::string& url, const std::uint8_t* bytes, std::size_t size,
                                          bool put, const Limits& limits, const Access& access) {
  HttpClient::Response response;
  Target target;
  if (!Crack(url, &target)) {
    response.error = "a URL WinHTTP cannot read";
    return response;
  }
  const ULONGLONG deadline = GetTickCount64() + limits.transferMilliseconds;
  Handle session(WinHttpOpen(L"tovrel", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                             WINHTTP_NO_PROXY_BYPASS, 0));
  if (session.Get() == nullptr) {
    response.error = Failure("starting WinHTTP");
    return response;
  }
  const int connect = static_cast<int>(limits.connectMilliseconds);
  const int transfer = static_cast<int>(limits.transferMilliseconds);
  WinHttpSetTimeouts(session.Get(), connect, connect, transfer, transfer);
  Handle connection(WinHttpConnect(session.Get(), target.host.c_str(), target.port, 0));
  // Outlives the request it checks.
  ServerCertificateCheck check(target.host);
  Handle request(connection.Get() == nullptr
                     ? nullptr
                     : WinHttpOpenRequest(connection.Get(), put ? L"PUT" : L"GET", target.path.c_str(), nullptr,
                                          WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                          target.secure ? WINHTTP_FLAG_SECURE : 0));
  if (request.Get() == nullptr) {
    response.error = Failure("opening the request");
    return response;
  }
  // The bounds go on the request too: some WinHTTP versions take only
  // those of the handle that waits.
  WinHttpSetTimeouts(request.Get(), connect, connect, transfer, transfer);
  DWORD receive = static_cast<DWORD>(transfer);
  WinHttpSetOption(request.Get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &receive, sizeof receive);
  // No redirects; and no connection kept for a later request, which some
  // WinHTTP versions share between sessions without verifying the
  // server again for a request that trusts other CAs.
  DWORD disabled = WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_KEEP_ALIVE;
  WinHttpSetOption(request.Get(), WINHTTP_OPTION_DISABLE_FEATURE, &disabled, sizeof disabled);
  if (target.secure && !access.caFile.empty() && !(check.Load(access.caFile) && check.Attach(request.Get()))) {
    response.error = check.Why().empty() ? Failure("setting up the certificate check") : check.Why();
    return response;
  }
  const std::wstring headers =
      access.authorization.empty() ? std::wstring() : L"Authorization: " + WideText::FromUtf8(access.authorization);
  if (!headers.empty() && !WinHttpAddRequestHeaders(request.Get(), headers.c_str(), static_cast<DWORD>(headers.size()),
                                                    WINHTTP_ADDREQ_FLAG_ADD | WINHTTP_ADDREQ_FLAG_REPLACE)) {
    response.error = Failure("adding the credentials");
    return response;
  }
  if (!SendRequest(request.Get(), bytes, put ? size : 0, check)) {
    response.timedOut = GetLastError() == ERROR_WINHTTP_TIMEOUT;
    response.error = Failure("sending the request");
    if (check.Refused()) {
      request.Forget();
      response.timedOut = false;
      response.error = check.Why();
    }
    return response;
  }
  DWORD status = 0;
  DWORD statusSize = sizeof status;
  if (!WinHttpQueryHeaders(request.Get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                           WINHTTP_HEADER_NAME_BY_INDEX, &status, &statusSize, WINHTTP_NO_HEADER_INDEX)) {
    response.error = Failure("reading the status");
    return response;
  }
  if (!ReadBody(request.Get(), deadline, limits.maxBodyBytes, &response)) {
    response.body.clear();
    return response;
  }
  // A connection closed before the length the answer announced: cut off.
  DWORD announced = 0;
  DWORD announcedSize = sizeof announced;
  if (WinHttpQueryHeaders(request.Get(), WINHTTP_QUERY_CONTENT_LENGTH | WINHTTP_QUERY_FLAG_NUMBER,
                          WINHTTP_HEADER_NAME_BY_INDEX, &announced, &announcedSize, WINHTTP_NO_HEADER_INDEX) &&
      announced != response.body.size()) {
    response.body.clear();
    response.error = "the answer was cut off";
    return response;
  }
  response.answered = true;
  response.status = static_cast<int>(status);
  return response;
}

}  // namespace Tovrel
