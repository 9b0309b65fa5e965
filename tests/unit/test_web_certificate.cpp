// Certificates that nimbus-web makes for itself.
#include "tools/web/certificate.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace nimbus::web {
namespace {

constexpr long kDay = 24L * 60 * 60;

template <auto release>
struct Release {
  template <typename T>
  void operator()(T* what) const {
    release(what);
  }
};
using File = std::unique_ptr<FILE, Release<std::fclose>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

class WebCertificate : public testing::Test {
 protected:
  WebCertificate() {
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
  }
  ~WebCertificate() override { std::filesystem::remove_all(folder_); }

  [[nodiscard]] Certificate made() const {
    const File file(std::fopen(files_.certificate.c_str(), "r"));
    return Certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  }

  /// Changes the day of its end, and signs it again.
  void let_end_in(long days) const {
    const Certificate certificate = made();
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), days * kDay);
    const File key_file(std::fopen(files_.key.c_str(), "r"));
    const Key key(PEM_read_PrivateKey(key_file.get(), nullptr, nullptr, nullptr));
    ASSERT_NE(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
    const File file(std::fopen(files_.certificate.c_str(), "w"));
    ASSERT_EQ(PEM_write_X509(file.get(), certificate.get()), 1);
  }

  /// How long it is good for, in whole days.
  [[nodiscard]] int days_left() const {
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(made().get()));
    return days;
  }

  std::string folder_ = testing::TempDir() + "/certificate";
  CertificateFiles files_{folder_ + "/certificate.pem", folder_ + "/key.pem"};
};

TEST_F(WebCertificate, IsForTheNamesAndAddressesOfTheMachine) {
  make_certificate(files_, {"camera.local", "192.168.1.5"});
  const Certificate certificate = made();
  const auto is_for = [&certificate](const char* host) {
    return X509_check_host(certificate.get(), host, 0, 0, nullptr) == 1;
  };
  EXPECT_TRUE(is_for("localhost"));
  EXPECT_TRUE(is_for("camera.local"));
  EXPECT_FALSE(is_for("evil.example"));
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "192.168.1.5", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "192.168.1.6", 0), 0);
}

TEST_F(WebCertificate, IsMadeAnewAMonthBeforeItsEnd) {
  make_certificate(files_, {});
  EXPECT_GT(days_left(), 800);
  EXPECT_LT(days_left(), 825) << "phones take nothing that is good for longer";
  let_end_in(31);
  make_certificate(files_, {});
  EXPECT_LE(days_left(), 31);
  let_end_in(29);
  make_certificate(files_, {});
  EXPECT_GT(days_left(), 800);
}

}  // namespace
}  // namespace nimbus::web
