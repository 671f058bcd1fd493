// Loading the anchor certificates of a signing policy from its folder.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/OpenSslHandles.h"

namespace platform::ossl {

// Every certificate of every "*.pem" file directly in folder, files in name
// order. Files that are too large or hold no certificate are passed over, so
// one stray file cannot take the others' trust away.
std::vector<X509Ptr> loadAnchorFolder(const std::string& folder);

// The certificates of one PEM text, in order; stops at the first that fails.
std::vector<X509Ptr> readPemCertificates(const std::string& pem);

}  // namespace platform::ossl
