#include "localservice/Certificates.h"

#include <arpa/inet.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace localservice {
namespace {

template <auto destroy>
struct Destroy {
  template <typename T>
  void operator()(T* pointer) const {
    destroy(pointer);
  }
};

using PrivateKey = std::unique_ptr<EVP_PKEY, Destroy<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Destroy<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Destroy<X509_EXTENSION_free>>;
using Number = std::unique_ptr<BIGNUM, Destroy<BN_free>>;
using Buffer = std::unique_ptr<BIO, Destroy<BIO_free_all>>;

void require(bool succeeded, const std::string& what) {
  if (succeeded) return;
  const char* reason = ERR_reason_error_string(ERR_peek_error());
  ERR_clear_error();
  throw std::runtime_error(reason == nullptr ? what : what + " (" + reason + ")");
}

void made(bool succeeded) {
  require(succeeded, "A certificate can't be made");
}

template <typename Write>
std::string toPEM(Write write) {
  const Buffer buffer(BIO_new(BIO_s_mem()));
  made(buffer && write(buffer.get()) == 1);
  char* text = nullptr;
  const long size = BIO_get_mem_data(buffer.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string toPEM(X509* certificate) {
  return toPEM([=](BIO* out) { return PEM_write_bio_X509(out, certificate); });
}

std::string toPEM(EVP_PKEY* key) {
  return toPEM([=](BIO* out) {
    return PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

PrivateKey newKey() {
  return PrivateKey(EVP_EC_gen("P-256"));
}

struct ExtensionText {
  int kind;
  std::string value;
};

// Issued by itself if there is no issuer. The extensions come last: some are derived from the key.
Certificate newCertificate(const std::string& commonName, Validity validity, EVP_PKEY* key,
                           X509* issuer, EVP_PKEY* issuerKey,
                           const std::vector<ExtensionText>& extensions) {
  Certificate certificate(X509_new());
  X509* const x509 = certificate.get();
  if (issuer == nullptr) issuer = x509;

  const Number serial(BN_new());
  const auto* name = reinterpret_cast<const unsigned char*>(commonName.c_str());
  using std::chrono::system_clock;
  made(serial && BN_rand(serial.get(), 159, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
       X509_set_version(x509, X509_VERSION_3) == 1 &&
       BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(x509)) != nullptr &&
       X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_UTF8, name, -1, -1,
                                  0) == 1 &&
       X509_set_issuer_name(x509, X509_get_subject_name(issuer)) == 1 &&
       ASN1_TIME_set(X509_getm_notBefore(x509), system_clock::to_time_t(validity.from)) &&
       ASN1_TIME_set(X509_getm_notAfter(x509), system_clock::to_time_t(validity.until)) &&
       X509_set_pubkey(x509, key) == 1);

  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, x509, nullptr, nullptr, 0);
  for (const auto& [kind, value] : extensions) {
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    made(extension && X509_add_ext(x509, extension.get(), -1) == 1);
  }
  made(X509_sign(x509, issuerKey, EVP_sha256()) > 0);
  return certificate;
}

std::string alternativeNames(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    in6_addr address{};
    const bool isAddress = inet_pton(AF_INET, name.c_str(), &address) == 1 ||
                           inet_pton(AF_INET6, name.c_str(), &address) == 1;
    list.append(list.empty() ? "" : ",").append(isAddress ? "IP:" : "DNS:").append(name);
  }
  return list;
}

// Under a name of its own first, so that nobody ever reads half a file.
void writeAtomically(const std::filesystem::path& file, std::string_view text, mode_t mode) {
  std::string draft = file.string() + ".XXXXXX";
  const int descriptor = ::mkstemp(draft.data());
  const bool written =
      descriptor >= 0 &&
      ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
      ::fchmod(descriptor, mode) == 0 && ::fsync(descriptor) == 0 &&
      ::rename(draft.c_str(), file.c_str()) == 0;
  const int error = errno;
  ::close(descriptor);
  if (written) return;
  ::unlink(draft.c_str());
  throw std::runtime_error(file.string() +
                           " can't be written: " + std::generic_category().message(error));
}

template <typename Parse>
auto* fromPEM(const std::filesystem::path& file, Parse parse) {
  const Buffer in(BIO_new_file(file.c_str(), "r"));
  require(in != nullptr, file.string() + " can't be read");
  auto* const value = parse(in.get(), nullptr, nullptr, nullptr);
  require(value != nullptr, file.string() + " is damaged");
  return value;
}

}  // namespace

Validity Validity::aYear() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  return {now - hours(1), now + days(365)};
}

struct CertificateAuthority::Keys {
  PrivateKey key;
  Certificate certificate;
  std::string certificatePEM = toPEM(certificate.get());
};

CertificateAuthority::CertificateAuthority(std::unique_ptr<Keys> keys) : keys_(std::move(keys)) {}
CertificateAuthority::CertificateAuthority(CertificateAuthority&&) noexcept = default;
CertificateAuthority& CertificateAuthority::operator=(CertificateAuthority&&) noexcept = default;
CertificateAuthority::~CertificateAuthority() = default;

CertificateAuthority CertificateAuthority::create() {
  PrivateKey key = newKey();
  Validity validity = Validity::aYear();
  validity.until = validity.from + std::chrono::years(10);  // It's trusted by hand: seldom anew.
  Certificate certificate =
      newCertificate("QuorvaSDK local service", validity, key.get(), nullptr, key.get(),
                     {{NID_basic_constraints, "critical,CA:TRUE"},
                      {NID_key_usage, "critical,keyCertSign"},
                      {NID_subject_key_identifier, "hash"}});
  return CertificateAuthority(std::make_unique<Keys>(Keys{std::move(key), std::move(certificate)}));
}

CertificateAuthority CertificateAuthority::openOrCreate(const std::filesystem::path& directory) {
  const auto certificateFile = directory / "ca.pem";
  const auto keyFile = directory / "ca-key.pem";
  // The certificate is written last: where there is one, both are complete.
  if (std::error_code ignored; !std::filesystem::exists(certificateFile, ignored)) {
    CertificateAuthority authority = create();
    writeAtomically(keyFile, toPEM(authority.keys_->key.get()), 0600);
    writeAtomically(certificateFile, authority.certificatePEM(), 0644);
    return authority;
  }

  Certificate certificate(fromPEM(certificateFile, PEM_read_bio_X509));
  PrivateKey key(fromPEM(keyFile, PEM_read_bio_PrivateKey));
  require(X509_check_private_key(certificate.get(), key.get()) == 1,
          keyFile.string() + " is not the key of " + certificateFile.string());
  return CertificateAuthority(std::make_unique<Keys>(Keys{std::move(key), std::move(certificate)}));
}

const std::string& CertificateAuthority::certificatePEM() const {
  return keys_->certificatePEM;
}

Identity CertificateAuthority::issue(const std::vector<std::string>& names,
                                     Validity validity) const {
  const PrivateKey key = newKey();
  const Certificate certificate =
      newCertificate("QuorvaSDK development server", validity, key.get(), keys_->certificate.get(),
                     keys_->key.get(),
                     {{NID_basic_constraints, "critical,CA:FALSE"},
                      {NID_key_usage, "critical,digitalSignature"},
                      {NID_ext_key_usage, "serverAuth"},
                      {NID_subject_key_identifier, "hash"},
                      {NID_authority_key_identifier, "keyid:always"},
                      {NID_subject_alt_name, alternativeNames(names)}});
  return {toPEM(certificate.get()), toPEM(key.get())};
}

}  // namespace localservice
