#include "tools/web/certificate.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

#include "base/unique_fd.h"
#include "tools/common/failure.h"
#include "tools/web/site.h"

namespace nimbus::web {
namespace {

using tools::Failure;

// Phones take nothing that is good for longer than 825 days.
constexpr long kDay = 24L * 60 * 60;
constexpr long kGoodFor = 820 * kDay;
constexpr long kRenewBefore = 30 * kDay;
constexpr long kClocksDiffer = 2 * kDay;  // a board without a battery begins in the past

template <auto free_it>
struct Free {
  template <typename T>
  void operator()(T* what) const {
    free_it(what);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;
using Bio = std::unique_ptr<BIO, Free<BIO_free>>;

void expect(bool good, const char* what) {
  if (!good) throw Failure(std::string("cannot make a certificate: ") + what);
}

bool is_good(const CertificateFiles& files) {
  if (access(files.key.c_str(), R_OK) != 0) return false;
  const Bio file(BIO_new_file(files.certificate.c_str(), "r"));
  if (file == nullptr) return false;
  const Certificate certificate(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
  if (certificate == nullptr) return false;
  time_t soon = time(nullptr) + kRenewBefore;
  return X509_cmp_time(X509_get0_notAfter(certificate.get()), &soon) > 0;
}

void add_extension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, Free<X509_EXTENSION_free>> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  expect(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "a name");
}

std::string alternatives(const std::vector<std::string>& names) {
  std::string list = "DNS:localhost";
  for (const std::string& name : names) {
    list += (is_address(name) ? ",IP:" : ",DNS:") + name;
  }
  return list;
}

Certificate certify(EVP_PKEY* key, const std::vector<std::string>& names) {
  Certificate certificate(X509_new());
  expect(certificate != nullptr, "no memory");
  std::uint64_t serial = 0;
  expect(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) == 1, "no chance");
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1U);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kClocksDiffer);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kGoodFor - kClocksDiffer);
  X509_NAME* const name = X509_get_subject_name(certificate.get());
  constexpr std::array<unsigned char, 15> kName{"Tervado Nimbus"};
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kName.data(), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  X509_set_pubkey(certificate.get(), key);
  add_extension(certificate.get(), NID_subject_alt_name, alternatives(names));
  add_extension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  add_extension(certificate.get(), NID_key_usage, "critical,digitalSignature");
  add_extension(certificate.get(), NID_ext_key_usage, "serverAuth");
  expect(X509_sign(certificate.get(), key, EVP_sha256()) != 0, "the signature");
  return certificate;
}

Bio create(const std::string& path, mode_t mode) {
  unlink(path.c_str());
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  FILE* const stream = file < 0 ? nullptr : fdopen(file, "w");
  if (stream == nullptr) throw Failure("cannot write " + path + "; expected a folder of its own");
  return Bio(BIO_new_fp(stream, BIO_CLOSE));
}

}  // namespace

void make_certificate(const CertificateFiles& files, const std::vector<std::string>& names) {
  if (is_good(files)) return;
  const Key key(EVP_EC_gen("P-256"));
  expect(key != nullptr, "the key");
  const Certificate certificate = certify(key.get(), names);
  const Bio key_file = create(files.key, 0600);
  expect(PEM_write_bio_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                  nullptr) == 1,
         "its key's file");
  const Bio file = create(files.certificate, 0644);
  expect(PEM_write_bio_X509(file.get(), certificate.get()) == 1, "its file");
}

}  // namespace nimbus::web
