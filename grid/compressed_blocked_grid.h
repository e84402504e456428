#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "common/exception.h"
#include "common/logger.h"
#include "grid/block_layout.h"
#include "grid/bounded_data_block.h"
#include "grid/grid.h"

namespace nmr {

// Everything needed to build an empty CompressedBlockedGrid with the same block layout on
// another process: sizes = {nx, ny, nz, marginX, marginY, marginZ}.
struct CompressedGridLayout {
    std::vector<std::uint32_t> sizes;
    double cellSize = 1.0;
    std::uint32_t blockEdge = 64;
    std::uint32_t maxExpandedBlocks = 16;
};

// A grid kept as zlib-compressed blocks, for grids that do not fit in memory plainly.
//
// Layout: blocks have an edge of blockEdge cells; an axis of n cells has max(1, n / edge)
// blocks and its last block runs to the end of the axis, so it may be up to 2*edge-1 long.
// Block number = (bz * blocksY + by) * blocksX + bx. The walker sort uses the same rule,
// so walkers that follow each other in the sort touch the same block.
//
// At most maxExpandedBlocks blocks are held expanded; the least recently used one is
// squeezed back first, and its bytes are rewritten only when it was changed. Reads go
// through a cached pointer to the last block used, so a walker staying inside one block
// pays three compares per read. Not thread-safe, not even for reads.
template <typename T>
class CompressedBlockedGrid final : public Grid<T>, public LoggerClient {
public:
    static constexpr std::uint32_t kDefaultBlockEdge = 64;
    static constexpr std::uint32_t kDefaultMaxExpandedBlocks = 16;

    CompressedBlockedGrid(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                          std::uint32_t marginX, std::uint32_t marginY, std::uint32_t marginZ,
                          double cellSize, std::uint32_t blockEdge = kDefaultBlockEdge,
                          std::uint32_t maxExpandedBlocks = kDefaultMaxExpandedBlocks,
                          LoggerBase* logger = nullptr)
        : Grid<T>(nx, ny, nz, marginX, marginY, marginZ, cellSize),
          edge_(blockEdge == 0 ? 1 : blockEdge),
          maxExpanded_(std::max<std::uint32_t>(1, maxExpandedBlocks)) {
        setLogger(logger);
        buildLayout();
        this->resetCountersToPore();
    }
    explicit CompressedBlockedGrid(const CompressedGridLayout& layout, LoggerBase* logger = nullptr)
        : CompressedBlockedGrid(checkedSize(layout, 0), checkedSize(layout, 1),
                                checkedSize(layout, 2), checkedSize(layout, 3),
                                checkedSize(layout, 4), checkedSize(layout, 5), layout.cellSize,
                                layout.blockEdge, layout.maxExpandedBlocks, logger) {}

    // ---- cell access -------------------------------------------------------------------

    // The walk's read: non-virtual, no hashing, no locking while inside the cached block.
    T at(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        const std::uint32_t dx = x - cx0_, dy = y - cy0_, dz = z - cz0_;
        if (dx < cnx_ && dy < cny_ && dz < cnz_) {
            return cells_[(static_cast<std::size_t>(dz) * cny_ + dy) * cnx_ + dx];
        }
        return slowAt(x, y, z);
    }

    void setCellCounting(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value,
                         typename Grid<T>::Counters& counters) override {
        T& cell = writableCell(x, y, z);
        if (this->isInterior(x, y, z)) countCellChange(cell, value, counters);
        cell = value;
    }
    const T& getCell(T& buffer, std::uint32_t x, std::uint32_t y, std::uint32_t z) const override {
        buffer = at(x, y, z);
        return buffer;
    }

    // Filling in file order (x fastest, then y, then z). Interior cells are counted, margin
    // cells are not; a value whose mineral lies outside the counter table is stored
    // without counting, so that a damaged file can be loaded and checked afterwards. When
    // the last cell of a band of blocks along z is set the band is squeezed at once.
    void fillCell(std::uint32_t x, std::uint32_t y, std::uint32_t z, const T& value) {
        T& cell = writableCell(x, y, z);
        if (this->isInterior(x, y, z)) {
            countCellChange(cell, value, this->counters_, UncountedCodes::Skip);
        }
        cell = value;
        if (x == this->nx_ - 1 && y == this->ny_ - 1 && z == bandEnd(tz_[z]) - 1) {
            squeezeBand(tz_[z]);
        }
    }
    // While filling, up to pinnedBlocks blocks may stay expanded even above the budget:
    // one band (blocksX * blocksY) when the fill order follows z, more when it does not.
    void beginFill(std::uint32_t pinnedBlocks) { fillCap_ = pinnedBlocks; }
    // Squeezes every block and returns to the normal limit.
    void endFill() {
        fillCap_ = 0;
        while (!lru_.empty()) evict(lru_.back());
    }

    void clear() override {
        invalidateCache();
        lru_.clear();
        for (auto& block : blocks_) block.reset();
        this->resetCountersToPore();
    }
    std::shared_ptr<Grid<T>> makeEmpty() const override {
        return std::make_shared<CompressedBlockedGrid<T>>(layout(), &this->logger());
    }

    // ---- layout ------------------------------------------------------------------------

    std::uint32_t blockEdge() const { return edge_; }
    std::uint32_t blocksX() const { return blocksX_; }
    std::uint32_t blocksY() const { return blocksY_; }
    std::uint32_t blocksZ() const { return blocksZ_; }
    std::uint32_t blockCount() const { return static_cast<std::uint32_t>(blocks_.size()); }
    // Voxel index -> block index along each axis.
    const std::vector<std::uint32_t>& tableX() const { return tx_; }
    const std::vector<std::uint32_t>& tableY() const { return ty_; }
    const std::vector<std::uint32_t>& tableZ() const { return tz_; }
    std::uint32_t blockNumber(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        return (tz_[z] * blocksY_ + ty_[y]) * blocksX_ + tx_[x];
    }
    const BlockBounds& blockBounds(std::uint32_t block) const { return blocks_[block].bounds(); }

    // ---- memory ------------------------------------------------------------------------

    std::uint32_t maxExpandedBlocks() const { return maxExpanded_; }
    std::uint32_t expandedBlockCount() const { return static_cast<std::uint32_t>(lru_.size()); }
    // Squeezes least recently used blocks until at most n (at least 1) remain expanded.
    void setMaxExpandedBlocks(std::uint32_t n) {
        maxExpanded_ = std::max<std::uint32_t>(1, n);
        while (lru_.size() > currentCap()) evict(lru_.back());
    }
    // Bytes of everything but the expanded blocks: the compressed bytes, the three lookup
    // tables, the block records and pointers, and the grid object itself.
    std::uint64_t overheadBytes() const {
        std::uint64_t bytes = 0;
        for (const auto& block : blocks_) bytes += block.packed().size();
        bytes += (tx_.size() + ty_.size() + tz_.size()) * sizeof(std::uint32_t);
        bytes += blocks_.size() * (kBlockRecordBytes + kBlockPointerBytes);
        return bytes + kGridObjectBytes;
    }
    // The largest block, which every expanded block must be able to hold.
    std::size_t largestBlockCells() const { return largestBlockCells_; }

    // Sets how many blocks may stay expanded within availableMb megabytes (MiB); the
    // budget keeps a tenth in reserve. Throws Exception when not even one block fits.
    void applyMemoryBudget(double availableMb) {
        const double mib = 1024.0 * 1024.0;
        const double overheadMb = static_cast<double>(overheadBytes()) / mib;
        const double budgetMb = (availableMb - overheadMb) * 0.9;
        const double blockMb = static_cast<double>(largestBlockCells_ * sizeof(T)) / mib;
        if (blockMb > budgetMb) {
            std::ostringstream message;
            message << "Not enough memory available, need at least "
                    << std::ceil((blockMb + overheadMb) * 1.1) << " MB for the grid.";
            throw Exception(message.str());
        }
        const double fit = std::ceil(budgetMb / blockMb);
        const double total = static_cast<double>(blocks_.size());
        setMaxExpandedBlocks(static_cast<std::uint32_t>(std::min(fit, total)));
    }

    // ---- transfer between processes ----------------------------------------------------

    CompressedGridLayout layout() const {
        return {{this->nx_, this->ny_, this->nz_, this->marginX_, this->marginY_, this->marginZ_},
                this->cellSize_,
                edge_,
                maxExpanded_};
    }
    // Compressed byte count per block in block order (0 for a block that is all zeros).
    // Changed expanded blocks are compressed first, so the bytes are current.
    std::vector<std::int64_t> blockIndex() const {
        std::vector<std::int64_t> index;
        index.reserve(blocks_.size());
        for (std::uint32_t b = 0; b < blocks_.size(); ++b) {
            index.push_back(static_cast<std::int64_t>(committed(b).packed().size()));
        }
        return index;
    }
    // {x0, y0, z0, x1, y1, z1, state} with state 0 for an all-zero block, 1 for bytes.
    std::vector<std::uint32_t> blockDescription(std::uint32_t block) const {
        const auto& b = committed(block);
        const BlockBounds& r = b.bounds();
        return {r.x0, r.y0, r.z0, r.x1, r.y1, r.z1, b.isZero() ? 0u : 1u};
    }
    // The compressed bytes as they are; valid until the block is changed.
    const std::vector<char>& blockBytes(std::uint32_t block) const {
        return committed(block).packed().bytes();
    }
    // Installs a block received from another copy of this grid, without expanding it.
    // Throws Exception when the description does not fit this grid's layout.
    void installBlock(std::uint32_t block, const std::vector<std::uint32_t>& description,
                      std::vector<char> bytes) {
        if (block >= blocks_.size() || description.size() != 7 ||
            !(BlockBounds{description[0], description[1], description[2], description[3],
                          description[4], description[5]} == blocks_[block].bounds()) ||
            (description[6] == 0) != bytes.empty()) {
            throw Exception("Block does not match the grid layout: " + std::to_string(block));
        }
        if (blocks_[block].isExpanded()) evict(block);
        blocks_[block].install(std::move(bytes));
    }
    // Counts the interior cells again from the blocks, for a copy whose blocks were
    // installed from elsewhere. Cells with a mineral outside the table are not counted.
    void recountCounters() {
        std::fill(this->counters_.begin(), this->counters_.end(), 0);
        const std::size_t n = this->counters_.size();
        for (std::uint32_t b = 0; b < blocks_.size(); ++b) {
            const BlockBounds r = blocks_[b].bounds();
            for (std::uint32_t z = r.z0; z < r.z1; ++z)
                for (std::uint32_t y = r.y0; y < r.y1; ++y)
                    for (std::uint32_t x = r.x0; x < r.x1; ++x) {
                        const Mineral::Type m = mineralOf(at(x, y, z));
                        if (this->isInterior(x, y, z) && m < n) ++this->counters_[m];
                    }
        }
    }

private:
    // Fixed costs per block in the budget: the block record and the pointer to it.
    static constexpr std::uint64_t kBlockRecordBytes = 36;
    static constexpr std::uint64_t kBlockPointerBytes = 8;
    static constexpr std::uint64_t kGridObjectBytes = 240;

    static std::uint32_t checkedSize(const CompressedGridLayout& layout, std::size_t i) {
        if (layout.sizes.size() != 6) {
            throw Exception("Compressed grid layout needs six sizes: " +
                            std::to_string(layout.sizes.size()));
        }
        return layout.sizes[i];
    }

    // Exclusive end of block b along an axis of n cells.
    std::uint32_t blockEnd(std::uint32_t b, std::uint32_t blocks, std::uint32_t n) const {
        return BlockAxis::blockEnd(b, blocks, n, edge_);
    }
    std::uint32_t bandEnd(std::uint32_t bz) const { return blockEnd(bz, blocksZ_, this->nz_); }

    void buildLayout() {
        BlockAxis x(this->nx_, edge_), y(this->ny_, edge_), z(this->nz_, edge_);
        blocksX_ = x.count;
        blocksY_ = y.count;
        blocksZ_ = z.count;
        tx_ = std::move(x.blockOf);
        ty_ = std::move(y.blockOf);
        tz_ = std::move(z.blockOf);
        blocks_.reserve(static_cast<std::size_t>(blocksX_) * blocksY_ * blocksZ_);
        for (std::uint32_t bz = 0; bz < blocksZ_; ++bz)
            for (std::uint32_t by = 0; by < blocksY_; ++by)
                for (std::uint32_t bx = 0; bx < blocksX_; ++bx) {
                    const BlockBounds r{bx * edge_,
                                        by * edge_,
                                        bz * edge_,
                                        blockEnd(bx, blocksX_, this->nx_),
                                        blockEnd(by, blocksY_, this->ny_),
                                        blockEnd(bz, blocksZ_, this->nz_)};
                    largestBlockCells_ = std::max(largestBlockCells_, r.cellCount());
                    blocks_.emplace_back(r);
                }
        lruPos_.resize(blocks_.size());
    }

    std::size_t currentCap() const { return std::max<std::size_t>(maxExpanded_, fillCap_); }

    void invalidateCache() const {
        cells_ = nullptr;
        cnx_ = cny_ = cnz_ = 0;
        cachedBlock_ = kNoBlock;
        cachedWritable_ = false;
    }

    // Makes the block the most recently used expanded one and caches it.
    void touch(std::uint32_t b) const {
        auto& block = blocks_[b];
        if (block.isExpanded()) {
            lru_.splice(lru_.begin(), lru_, lruPos_[b]);
        } else {
            std::unique_ptr<ContiguousDataBlock<T>> spare;
            while (lru_.size() >= currentCap()) {
                auto freed = evict(lru_.back());
                if (freed && freed->size() == block.bounds().cellCount()) spare = std::move(freed);
            }
            block.expand(this->logger(), std::move(spare));
            lru_.push_front(b);
            lruPos_[b] = lru_.begin();
        }
        const BlockBounds& r = block.bounds();
        cells_ = block.cells()->data();
        cx0_ = r.x0;
        cy0_ = r.y0;
        cz0_ = r.z0;
        cnx_ = r.nx();
        cny_ = r.ny();
        cnz_ = r.nz();
        cachedBlock_ = b;
        cachedWritable_ = block.isDirty();
    }

    std::unique_ptr<ContiguousDataBlock<T>> evict(std::uint32_t b) const {
        if (b == cachedBlock_) invalidateCache();
        lru_.erase(lruPos_[b]);
        return blocks_[b].squeeze(this->logger());
    }

    T slowAt(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        touch(blockNumber(x, y, z));
        return cells_[(static_cast<std::size_t>(z - cz0_) * cny_ + (y - cy0_)) * cnx_ + (x - cx0_)];
    }

    T& writableCell(std::uint32_t x, std::uint32_t y, std::uint32_t z) {
        std::uint32_t dx = x - cx0_, dy = y - cy0_, dz = z - cz0_;
        if (!(cachedWritable_ && dx < cnx_ && dy < cny_ && dz < cnz_)) {
            const std::uint32_t b = blockNumber(x, y, z);
            if (b != cachedBlock_) touch(b);
            blocks_[b].markDirty();
            cachedWritable_ = true;
            dx = x - cx0_;
            dy = y - cy0_;
            dz = z - cz0_;
        }
        return cells_[(static_cast<std::size_t>(dz) * cny_ + dy) * cnx_ + dx];
    }

    // Brings the block's bytes up to date. The cached block must then be marked dirty
    // again by its next write, so the fast write path is closed until then.
    const BoundedDataBlock<T>& committed(std::uint32_t block) const {
        auto& b = blocks_.at(block);
        b.commit(this->logger());
        if (block == cachedBlock_) cachedWritable_ = false;
        return b;
    }

    void squeezeBand(std::uint32_t bz) {
        const std::uint32_t first = bz * blocksY_ * blocksX_;
        const std::uint32_t last = first + blocksY_ * blocksX_;
        for (std::uint32_t b = first; b < last; ++b) {
            if (blocks_[b].isExpanded()) evict(b);
        }
    }

    static constexpr std::uint32_t kNoBlock = 0xFFFFFFFFu;

    std::uint32_t edge_;
    std::uint32_t blocksX_ = 1, blocksY_ = 1, blocksZ_ = 1;
    std::vector<std::uint32_t> tx_, ty_, tz_;
    std::size_t largestBlockCells_ = 0;
    std::uint32_t maxExpanded_;
    std::uint32_t fillCap_ = 0;

    // Blocks expand and squeeze on reads as well, hence mutable.
    mutable std::vector<BoundedDataBlock<T>> blocks_;
    mutable std::list<std::uint32_t> lru_;  // most recently used first
    mutable std::vector<std::list<std::uint32_t>::iterator> lruPos_;

    // The cached block: origin, extent, cells. An extent of 0 forces the slow path.
    mutable T* cells_ = nullptr;
    mutable std::uint32_t cx0_ = 0, cy0_ = 0, cz0_ = 0;
    mutable std::uint32_t cnx_ = 0, cny_ = 0, cnz_ = 0;
    mutable std::uint32_t cachedBlock_ = kNoBlock;
    mutable bool cachedWritable_ = false;
};

}  // namespace nmr
