// ServerCertificateCheck: verifies an HTTPS server's certificate against
// the CA certificates of a PEM file, for WinHTTP, which verifies against
// the system's trust store only.
//
// The request is made with WinHTTP's unknown-CA check switched off (its
// checks of dates and host name stay on), and Attach sets a callback that
// WinHTTP calls once the TLS handshake is done and before anything of the
// request is sent: there the server's chain must end at one of the file's
// certificates and pass the SSL policy for the host name (dates
// included), or the callback closes the request, so that neither the
// credentials nor the body reach a server that did not verify.
//
// Owned by the one request it is attached to, and outlives it.
// Thread-safety: one request at a time.
#ifndef TOVREL_PLATFORM_WIN32_SERVERCERTIFICATECHECK_H
#define TOVREL_PLATFORM_WIN32_SERVERCERTIFICATECHECK_H

#include <windows.h>
#include <wincrypt.h>
#include <winhttp.h>

#include <string>

namespace Tovrel {

class ServerCertificateCheck {
 public:
  // `host` is the name the certificate must carry.
  explicit ServerCertificateCheck(const std::wstring& host);
  ~ServerCertificateCheck();
  ServerCertificateCheck(const ServerCertificateCheck&) = delete;
  ServerCertificateCheck& operator=(const ServerCertificateCheck&) = delete;

  // Reads the CA certificates of `caFile` (UTF-8 path); false, with the
  // reason in Why(), when it cannot or the file holds none.
  bool Load(const std::string& caFile);
  // Sets up `request` (not yet sent) to be checked; false when WinHTTP
  // takes none of it.
  bool Attach(HINTERNET request);
  // True when the check closed the request: the caller must not close it
  // again.
  bool Refused() const { return refused_; }
  const std::string& Why() const { return why_; }

 private:
  static void CALLBACK OnStatus(HINTERNET request, DWORD_PTR context, DWORD status, LPVOID information,
                                DWORD length);
  // True when the server's chain ends at one of the CA certificates and
  // passes the SSL policy for the host.
  bool Verify(PCCERT_CONTEXT server);

  std::wstring host_;
  HCERTSTORE cas_ = nullptr;
  std::string caFile_;
  bool refused_ = false;
  std::string why_;
};

}  // namespace Tovrel

#endif
