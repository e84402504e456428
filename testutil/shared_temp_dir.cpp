#include "mpi/message_passing.h"
#include "testutil/temp_dir.h"

namespace nmr::test {

SharedTempDir::SharedTempDir() {
    std::string name;
    if (mpi::rank() == 0) {
        owned_ = std::make_unique<TempDir>("nmrwalk_mpi_test");
        name = owned_->path().string();
    }
    mpi::broadcast(name, 0);
    path_ = name;
}

SharedTempDir::~SharedTempDir() { mpi::barrier(); }

}  // namespace nmr::test
