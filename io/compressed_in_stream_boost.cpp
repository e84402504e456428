#include "io/compressed_in_stream_boost.h"

#include <boost/iostreams/filter/gzip.hpp>
#include <boost/iostreams/filtering_stream.hpp>
#include <fstream>

namespace nmr {

namespace bio = boost::iostreams;

struct CompressedInStreamBoost::Chain {
    std::ifstream file;
    bio::filtering_istream in;
    bool open = false;
};

CompressedInStreamBoost::CompressedInStreamBoost(LoggerBase* logger)
    : CompressedInStream(logger), chain_(std::make_unique<Chain>()) {}

CompressedInStreamBoost::~CompressedInStreamBoost() { close(); }

void CompressedInStreamBoost::open(const std::string& fileName, std::ios_base::openmode mode) {
    close();
    fileName_ = fileName;
    Chain& c = *chain_;
    c.file.open(fileName, mode | std::ios_base::in | std::ios_base::binary);
    if (!c.file.is_open()) {
        c.in.setstate(std::ios_base::failbit);
        return;
    }
    c.in.push(bio::gzip_decompressor(kWindowBits, kBufferBytes), kBufferBytes);
    c.in.push(c.file, kBufferBytes);
    c.open = true;
    // Decoding starts here: a bad gzip header throws inside the chain, which the istream
    // turns into badbit.
    c.in.peek();
}

void CompressedInStreamBoost::close() {
    Chain& c = *chain_;
    if (c.open) {
        try {
            c.in.reset();
        } catch (...) {
            // Closing an input chain can only rethrow a decoding error already seen.
        }
        c.open = false;
    }
    if (c.file.is_open()) c.file.close();
    c.file.clear();
    c.in.clear();
}

bool CompressedInStreamBoost::good() const { return chain_->open && chain_->in.good(); }
bool CompressedInStreamBoost::isOpen() const { return chain_->open; }
bool CompressedInStreamBoost::failed() const { return !chain_->open || chain_->in.fail(); }
bool CompressedInStreamBoost::eof() const { return chain_->in.eof(); }
std::istream& CompressedInStreamBoost::stream() { return chain_->in; }

std::size_t CompressedInStreamBoost::read(char* buffer, std::size_t count) {
    if (!chain_->open) return 0;
    chain_->in.read(buffer, static_cast<std::streamsize>(count));
    return static_cast<std::size_t>(chain_->in.gcount());
}

void CompressedInStreamBoost::getLine(char* buffer, std::size_t capacity, char delimiter) {
    if (capacity > 0) buffer[0] = '\0';
    if (!chain_->open) return;
    chain_->in.getline(buffer, static_cast<std::streamsize>(capacity), delimiter);
}

void CompressedInStreamBoost::ignore(std::size_t count, int delimiter) {
    if (!chain_->open) return;
    chain_->in.ignore(static_cast<std::streamsize>(count), delimiter);
}

}  // namespace nmr
