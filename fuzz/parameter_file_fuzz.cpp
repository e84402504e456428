// The YAML parameter file, as a run reads it and as the field computation reads its own
// keys. Both readers document two ways to fail: nmr::Exception for what the user can fix,
// and the YAML library's exceptions (std::exception) for malformed values. Anything else
// escaping is a finding.

#include <cstdint>
#include <exception>

#include "common/exception.h"
#include "fuzz/fuzz_support.h"
#include "params/field_settings.h"
#include "params/parameter_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("nmr.yaml", data, size);
    try {
        const auto record = readParameters(path);
        // A record that was read must also be writable.
        encodeParameters(*record);
    } catch (const Exception&) {
    } catch (const std::exception&) {
    }
    try {
        const FieldSettings settings = readFieldSettings(path);
        if (!(settings.staticField > 0.0) || !settings.volumeSusceptibility.contains(Mineral::Pore))
            fuzz::violated("field settings without B0 or the pore fluid");
    } catch (const Exception&) {
    } catch (const std::exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
