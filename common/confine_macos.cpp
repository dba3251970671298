#include <cerrno>

#include "common/platform.h"

namespace platform {

// What the system has for this (sandbox_init) is deprecated, and its language is not described.
std::vector<std::string> Confines() {
    return {};
}

int Confine(const Confinement&) {
    return ENOTSUP;
}

}  // namespace platform
