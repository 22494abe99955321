// A certificate authority for development: made on this machine, trusted by nobody who isn't told
// to.
//
// Any thread; a CertificateAuthority may be moved but not shared between threads without a lock.
// Everything here throws std::runtime_error with one readable line when a file or OpenSSL refuses.

#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace localservice {

/// What a TLS server presents: its certificate and the key to it, both PEM.
struct Identity {
  std::string certificatePEM;
  std::string privateKeyPEM;
};

/// The span in which a certificate is valid, UTC.
struct Validity {
  std::chrono::sys_seconds from;
  std::chrono::sys_seconds until;

  /// From an hour ago, for clocks that differ a little, for a year.
  static Validity aYear();
};

class CertificateAuthority {
 public:
  /// A new authority, held in memory only.
  static CertificateAuthority create();

  /// The authority kept in `directory` as ca.pem and ca-key.pem (0600); made there if there is
  /// none.
  static CertificateAuthority openOrCreate(const std::filesystem::path& directory);

  CertificateAuthority(CertificateAuthority&&) noexcept;
  CertificateAuthority& operator=(CertificateAuthority&&) noexcept;
  ~CertificateAuthority();

  [[nodiscard]] const std::string& certificatePEM() const;

  /// A server certificate for `names`, DNS names and IP addresses alike, all as subject alternative
  /// names.
  [[nodiscard]] Identity issue(const std::vector<std::string>& names,
                               Validity validity = Validity::aYear()) const;

 private:
  struct Keys;
  explicit CertificateAuthority(std::unique_ptr<Keys> keys);
  std::unique_ptr<Keys> keys_;
};

}  // namespace localservice
