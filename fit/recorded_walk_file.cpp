#include "fit/recorded_walk_file.h"

#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <type_traits>

#include "common/exception.h"

namespace nmr::fit {

namespace {

constexpr char kMagicStem[] = "nmrwalk recorded walk ";
std::string magicLine() { return kMagicStem + std::to_string(kRecordedWalkFormat) + "\n"; }

// Little-endian fields one after another, as every machine this runs on stores them.
class Writer {
public:
    template <typename T>
    void put(T value) {
        static_assert(std::is_trivially_copyable_v<T>);
        const std::size_t at = bytes.size();
        bytes.resize(at + sizeof(T));
        std::memcpy(bytes.data() + at, &value, sizeof(T));
    }
    void put(const std::string& text) {
        put<std::uint64_t>(text.size());
        bytes.insert(bytes.end(), text.begin(), text.end());
    }
    template <typename T>
    void putVector(const std::vector<T>& values) {
        static_assert(std::is_trivially_copyable_v<T>);
        put<std::uint64_t>(values.size());
        const auto* p = reinterpret_cast<const std::uint8_t*>(values.data());
        bytes.insert(bytes.end(), p, p + values.size() * sizeof(T));
    }
    void putMap(const MineralValueMap<double>& map) {
        put<std::uint64_t>(map.entries().size());
        for (const auto& [code, value] : map.entries()) {
            put<std::uint32_t>(code);
            put(value);
        }
    }
    std::vector<std::uint8_t> bytes;
};

class Reader {
public:
    explicit Reader(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}
    template <typename T>
    T get() {
        need(sizeof(T));
        T value;
        std::memcpy(&value, bytes_.data() + at_, sizeof(T));
        at_ += sizeof(T);
        return value;
    }
    std::string getString() {
        const auto n = get<std::uint64_t>();
        need(n);
        std::string text(bytes_.begin() + static_cast<std::ptrdiff_t>(at_),
                         bytes_.begin() + static_cast<std::ptrdiff_t>(at_ + n));
        at_ += n;
        return text;
    }
    template <typename T>
    std::vector<T> getVector() {
        const auto n = get<std::uint64_t>();
        if (n > left() / sizeof(T)) throw Exception("Recorded walk ends early");
        std::vector<T> values(n);
        if (n > 0) std::memcpy(values.data(), bytes_.data() + at_, n * sizeof(T));
        at_ += n * sizeof(T);
        return values;
    }
    MineralValueMap<double> getMap() {
        MineralValueMap<double> map;
        const auto n = get<std::uint64_t>();
        if (n > left() / 12) throw Exception("Recorded walk ends early");
        for (std::uint64_t i = 0; i < n; ++i) {
            const auto code = get<std::uint32_t>();
            const double value = get<double>();
            if (code > Mineral::Unknown) throw Exception("Bad mineral code in a recorded walk");
            map.set(static_cast<Mineral::Type>(code), value);
        }
        return map;
    }
    std::size_t left() const { return bytes_.size() - at_; }

private:
    void need(std::uint64_t n) const {
        if (n > bytes_.size() - at_) throw Exception("Recorded walk ends early");
    }
    const std::vector<std::uint8_t>& bytes_;
    std::size_t at_ = 0;
};

void putHistories(Writer& out, const ContactHistories& h) {
    out.put(h.slots);
    out.put(h.fineIntervals);
    out.putVector(h.largestFine);
    out.putVector(h.largestCoarse);
    out.put<std::uint64_t>(h.chunks.size());
    for (const auto& chunk : h.chunks) {
        out.put(chunk.walkers);
        out.putVector(chunk.bytes);
    }
}

ContactHistories getHistories(Reader& in) {  // checked by checkHistories afterwards
    ContactHistories h;
    h.slots = in.get<std::uint32_t>();
    h.fineIntervals = in.get<std::uint32_t>();
    h.largestFine = in.getVector<std::uint32_t>();
    h.largestCoarse = in.getVector<std::uint32_t>();
    if (h.slots > kLargestRecordedSlots || h.largestFine.size() != h.slots ||
        h.largestCoarse.size() != h.slots)
        throw Exception("Bad slot count in a recorded walk");
    const auto chunks = in.get<std::uint64_t>();
    if (chunks > in.left()) throw Exception("Recorded walk ends early");
    h.chunks.resize(chunks);
    for (auto& chunk : h.chunks) {
        chunk.walkers = in.get<std::uint32_t>();
        chunk.bytes = in.getVector<std::uint8_t>();
    }
    return h;
}

void putRun(Writer& out, const RecordedRun& r) {
    out.putVector(r.intervalEndTime);
    out.put(r.fineIntervals);
    out.put(r.numberOfWalkers);
    for (double v :
         {r.resolutionM, r.fineStep, r.coarseStep, r.diffusionWater, r.scheduleDiffusion,
          r.clayMicroPorosity, r.totalWaterSaturation, r.clayFraction, r.bulkT2Ms, r.fieldTerm}) {
        out.put(v);
    }
    out.putMap(r.relaxivity);
    out.putMap(r.floor);
    out.putVector(r.counters);
    out.putVector(r.poreFaces);
    std::vector<std::int32_t> slotOf(r.plan.slotOf.begin(), r.plan.slotOf.end());
    out.putVector(slotOf);
    std::vector<std::uint32_t> minerals(r.plan.minerals.begin(), r.plan.minerals.end());
    out.putVector(minerals);
    out.putVector(r.plan.fineLog);
    out.putVector(r.plan.coarseLog);
}

RecordedRun getRun(Reader& in) {
    RecordedRun r;
    r.intervalEndTime = in.getVector<double>();
    r.fineIntervals = in.get<std::uint32_t>();
    r.numberOfWalkers = in.get<std::int32_t>();
    for (double* v : {&r.resolutionM, &r.fineStep, &r.coarseStep, &r.diffusionWater,
                      &r.scheduleDiffusion, &r.clayMicroPorosity, &r.totalWaterSaturation,
                      &r.clayFraction, &r.bulkT2Ms, &r.fieldTerm}) {
        *v = in.get<double>();
    }
    r.relaxivity = in.getMap();
    r.floor = in.getMap();
    r.counters = in.getVector<std::uint64_t>();
    r.poreFaces = in.getVector<std::uint64_t>();
    const auto slotOf = in.getVector<std::int32_t>();
    const auto minerals = in.getVector<std::uint32_t>();
    r.plan.fineLog = in.getVector<double>();
    r.plan.coarseLog = in.getVector<double>();
    if (slotOf.size() != r.plan.slotOf.size() || r.plan.fineLog.size() != minerals.size() ||
        r.plan.coarseLog.size() != minerals.size())
        throw Exception("Bad recording plan in a recorded walk");
    for (std::size_t c = 0; c < slotOf.size(); ++c) {
        if (slotOf[c] >= static_cast<std::int32_t>(minerals.size()) || slotOf[c] < -1)
            throw Exception("Bad recording plan in a recorded walk");
        r.plan.slotOf[c] = slotOf[c];
    }
    for (std::uint32_t code : minerals) {
        if (code > Mineral::Unknown) throw Exception("Bad recording plan in a recorded walk");
        r.plan.minerals.push_back(static_cast<Mineral::Type>(code));
    }
    return r;
}

std::uint32_t checksum(const std::uint8_t* data, std::size_t size) {
    uLong crc = crc32(0L, Z_NULL, 0);
    while (size > 0) {
        const auto piece = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
        crc = crc32(crc, data, piece);
        data += piece;
        size -= piece;
    }
    return static_cast<std::uint32_t>(crc);
}

}  // namespace

std::string fingerprintDifference(const Fingerprint& recorded, const Fingerprint& now) {
    for (const auto& [what, value] : now) {
        bool found = false;
        for (const auto& [recordedWhat, recordedValue] : recorded) {
            if (recordedWhat != what) continue;
            found = true;
            if (recordedValue != value) {
                return "it was recorded with " + what + " " + recordedValue +
                       " and the run now has " + value;
            }
        }
        if (!found) return "it does not record " + what;
    }
    return {};
}

std::vector<std::uint8_t> serialise(const ContactHistories& histories) {
    Writer out;
    putHistories(out, histories);
    return std::move(out.bytes);
}

ContactHistories deserialise(const std::vector<std::uint8_t>& bytes) {
    Reader in(bytes);
    ContactHistories h = getHistories(in);
    if (in.left() != 0) throw Exception("Recorded histories carry trailing bytes");
    checkHistories(h);
    return h;
}

void writeRecordedWalk(const std::string& path, const RecordedWalk& walk) {
    Writer out;
    out.put<std::uint64_t>(walk.fingerprint.size());
    for (const auto& [what, value] : walk.fingerprint) {
        out.put(what);
        out.put(value);
    }
    putRun(out, walk.run);
    putHistories(out, walk.histories);
    out.put(checksum(out.bytes.data(), out.bytes.size()));

    const std::filesystem::path target(path);
    const std::filesystem::path temporary =
        target.parent_path() / (target.filename().string() + ".tmp" + std::to_string(::getpid()));
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        const std::string magic = magicLine();
        file.write(magic.data(), static_cast<std::streamsize>(magic.size()));
        file.write(reinterpret_cast<const char*>(out.bytes.data()),
                   static_cast<std::streamsize>(out.bytes.size()));
        file.flush();
        if (!file) {
            std::error_code ignored;
            std::filesystem::remove(temporary, ignored);
            throw FileAccessException("Unable to write the recorded walk: " + path);
        }
    }
    std::error_code error;
    std::filesystem::rename(temporary, target, error);
    if (error) {
        std::filesystem::remove(temporary, error);
        throw FileAccessException("Unable to write the recorded walk: " + path);
    }
}

RecordedWalk readRecordedWalk(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw FileAccessException("Unable to open the recorded walk: " + path);
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                    std::istreambuf_iterator<char>());
    const std::string magicText = magicLine();
    const std::size_t magic = magicText.size();
    if (bytes.size() < magic + 4 || std::memcmp(bytes.data(), magicText.data(), magic) != 0)
        throw FileAccessException("Not a recorded walk of this version: " + path);
    std::uint32_t stored = 0;
    std::memcpy(&stored, bytes.data() + bytes.size() - 4, 4);
    if (checksum(bytes.data() + magic, bytes.size() - magic - 4) != stored)
        throw FileAccessException("The recorded walk is damaged (checksum): " + path);
    const std::vector<std::uint8_t> body(bytes.begin() + static_cast<std::ptrdiff_t>(magic),
                                         bytes.end() - 4);
    try {
        Reader in(body);
        RecordedWalk walk;
        const auto pairs = in.get<std::uint64_t>();
        if (pairs > in.left()) throw Exception("Recorded walk ends early");
        for (std::uint64_t i = 0; i < pairs; ++i) {
            std::string what = in.getString();
            std::string value = in.getString();
            walk.fingerprint.emplace_back(std::move(what), std::move(value));
        }
        walk.run = getRun(in);
        walk.histories = getHistories(in);
        if (walk.histories.slots != walk.run.plan.slots() || walk.run.intervalEndTime.empty() ||
            walk.run.intervalEndTime.size() > kIntervalCount)
            throw Exception("histories and plan disagree");
        checkHistories(walk.histories, static_cast<std::uint32_t>(walk.run.intervalEndTime.size()));
        return walk;
    } catch (const FileAccessException&) {
        throw;
    } catch (const Exception& e) {
        throw FileAccessException("The recorded walk is damaged (" + e.message() + "): " + path);
    }
}

std::optional<int> recordedWalkFormat(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string line;
    if (!file || !std::getline(file, line)) return std::nullopt;
    const std::string stem = kMagicStem;
    if (line.compare(0, stem.size(), stem) != 0) return std::nullopt;
    try {
        std::size_t used = 0;
        const int format = std::stoi(line.substr(stem.size()), &used);
        if (used + stem.size() != line.size()) return std::nullopt;
        return format;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace nmr::fit
