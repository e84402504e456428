#include "app/version.h"

#include "app/build_info.h"

namespace nmr::app {

std::string versionBanner(const std::string& programPath) {
    return programPath + " " NMR_DESCRIPTIVE_NAME " version " NMR_VERSION ". " NMR_BUILD_PLATFORM
                         "\n"
                         "Compiled with the " NMR_COMPILER " compiler.\n" NMR_MAKER "\n";
}

}  // namespace nmr::app
