// The certificate of a server, where nobody has given it one.
#pragma once

#include <string>
#include <vector>

namespace nimbus::web {

/// A certificate's file, and its key's.
struct CertificateFiles {
  std::string certificate;
  std::string key;
};

/// Makes a key and a certificate for these names and addresses, signed by itself, unless both files
/// are there and good for another month. The files' folder must be there; the key is for its owner
/// only. Throws Failure when they cannot be made.
void make_certificate(const CertificateFiles& files, const std::vector<std::string>& names);

}  // namespace nimbus::web
