// The field file of nmrwalk-field: a MetaImage header of MET_FLOAT with its values after
// it (ElementDataFile = LOCAL) or in a data file. The input is written both as "field.mhd"
// and as "field.raw", so a header naming field.raw finds data in the same folder; a header
// naming any other file is parsed but not read, so that the target reads nothing outside its
// own directory. An accepted field must hold DimSize values, every one finite.

#include <cmath>
#include <cstdint>
#include <filesystem>

#include "common/exception.h"
#include "field/field_file.h"
#include "fuzz/fuzz_support.h"
#include "rock/meta_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("field.mhd", data, size);
    fuzz::writeScratch("field.raw", data, size);
    try {
        const rock::MetaImageLayout layout =
            rock::readMetaImageLayout(path, {{{"MET_FLOAT", 4}}, "field values"});
        const std::filesystem::path dataPath(layout.dataPath);
        if (dataPath == path || dataPath == fuzz::scratchPath("field.raw")) {
            const field::FieldImage image = field::readFieldFile(path);
            if (image.size != layout.size) fuzz::violated("size other than the header's");
            if (image.values.size() != std::uint64_t{image.size[0]} * image.size[1] * image.size[2])
                fuzz::violated("value count other than DimSize");
            for (float v : image.values)
                if (!std::isfinite(v)) fuzz::violated("a value that is not finite");
        }
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
