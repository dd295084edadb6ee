#include "platform/win32/ServerCertificateCheck.h"

#include <fstream>
#include <iterator>
#include <vector>

#include "platform/WideText.h"

namespace Tovrel {

namespace {

constexpr const char* kBegin = "-----BEGIN CERTIFICATE-----";
constexpr const char* kEnd = "-----END CERTIFICATE-----";

// The DER bytes of one PEM block, or none.
std::vector<BYTE> Decoded(const std::string& block) {
  DWORD size = 0;
  if (!CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, nullptr,
                            &size, nullptr, nullptr)) {
    return {};
  }
  std::vector<BYTE> der(size);
  if (!CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                            &size, nullptr, nullptr)) {
    return {};
  }
  der.resize(size);
  return der;
}

}  // namespace

ServerCertificateCheck::ServerCertificateCheck(const std::wstring& host) : host_(host) {}

ServerCertificateCheck::~ServerCertificateCheck() {
  if (cas_ != nullptr) CertCloseStore(cas_, 0);
}

bool ServerCertificateCheck::Load(const std::string& caFile) {
  caFile_ = caFile;
  std::ifstream in(WideText::FromUtf8(caFile).c_str(), std::ios::binary);
  const std::string pem((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  cas_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
  if (cas_ == nullptr) {
    why_ = "no store for the CA certificates";
    return false;
  }
  int added = 0;
  for (std::size_t begin = pem.find(kBegin); begin != std::string::npos; begin = pem.find(kBegin, begin + 1)) {
    const std::size_t end = pem.find(kEnd, begin);
    if (end == std::string::npos) break;
    const std::vector<BYTE> der = Decoded(pem.substr(begin, end + std::char_traits<char>::length(kEnd) - begin));
    if (!der.empty() && CertAddEncodedCertificateToStore(cas_, X509_ASN_ENCODING, der.data(),
                                                         static_cast<DWORD>(der.size()), CERT_STORE_ADD_ALWAYS,
                                                         nullptr)) {
      ++added;
    }
  }
  if (added == 0) {
    why_ = "no CA certificate could be read from " + caFile;
    return false;
  }
  return true;
}

bool ServerCertificateCheck::Attach(HINTERNET request) {
  DWORD flags = SECURITY_FLAG_IGNORE_UNKNOWN_CA;
  DWORD_PTR context = reinterpret_cast<DWORD_PTR>(this);
  return WinHttpSetOption(request, WINHTTP_OPTION_SECURITY_FLAGS, &flags, sizeof flags) &&
         WinHttpSetOption(request, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context) &&
         WinHttpSetStatusCallback(request, &ServerCertificateCheck::OnStatus, WINHTTP_CALLBACK_FLAG_SEND_REQUEST, 0) !=
             WINHTTP_INVALID_STATUS_CALLBACK;
}

void CALLBACK ServerCertificateCheck::OnStatus(HINTERNET request, DWORD_PTR context, DWORD status, LPVOID, DWORD) {
  if (status != WINHTTP_CALLBACK_STATUS_SENDING_REQUEST || context == 0) return;
  auto* check = reinterpret_cast<ServerCertificateCheck*>(context);
  if (check->refused_) return;
  PCCERT_CONTEXT server = nullptr;
  DWORD size = sizeof server;
  const bool got = WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &server, &size) && server != nullptr;
  const bool trusted = got && check->Verify(server);
  if (server != nullptr) CertFreeCertificateContext(server);
  if (trusted) return;
  if (!got) check->why_ = "the server's certificate could not be read";
  check->refused_ = true;
  WinHttpCloseHandle(request);
}

bool ServerCertificateCheck::Verify(PCCERT_CONTEXT server) {
  CERT_CHAIN_PARA para{};
  para.cbSize = sizeof para;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  if (!CertGetCertificateChain(nullptr, server, nullptr, cas_, &para, 0, nullptr, &chain)) {
    why_ = "the server's certificate chain could not be built";
    return false;
  }
  const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
  PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
  PCCERT_CONTEXT ours = CertFindCertificateInStore(cas_, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr);
  const bool anchored = ours != nullptr;
  if (ours != nullptr) CertFreeCertificateContext(ours);
  // Dates and the host name, as TLS checks them; the root need not be
  // one the system trusts, since it is one of the file's.
  HTTPSPolicyCallbackData extra{};
  extra.cbStruct = sizeof extra;
  extra.dwAuthType = AUTHTYPE_SERVER;
  extra.fdwChecks = SECURITY_FLAG_IGNORE_UNKNOWN_CA;
  extra.pwszServerName = const_cast<wchar_t*>(host_.c_str());
  CERT_CHAIN_POLICY_PARA policy{};
  policy.cbSize = sizeof policy;
  policy.pvExtraPolicyPara = &extra;
  CERT_CHAIN_POLICY_STATUS outcome{};
  outcome.cbSize = sizeof outcome;
  const bool passes = CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain, &policy, &outcome) &&
                      outcome.dwError == 0;
  const DWORD faults = chain->TrustStatus.dwErrorStatus & ~static_cast<DWORD>(CERT_TRUST_IS_UNTRUSTED_ROOT);
  CertFreeCertificateChain(chain);
  if (!anchored) {
    why_ = "the server's certificate does not chain to a CA of " + caFile_;
  } else if (!passes || faults != 0) {
    why_ = "the server's certificate does not verify for its host (error " + std::to_string(outcome.dwError) + ")";
  }
  return anchored && passes && faults == 0;
}

}  // namespace Tovrel
