// The library's version and the fingerprint of the catalogue it was built from.
#include "CatalogueFingerprint.h"
#include "trdcomp/trdcomp.hpp"

namespace trdcomp {

const char* Version() noexcept { return TRDCOMP_VERSION; }

std::uint64_t CatalogueHash() noexcept { return TRDCOMP_CATALOGUE_HASH; }

}  // namespace trdcomp
