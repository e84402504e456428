#include "simulation/job_control.h"

#include <fstream>
#include <iostream>
#include <sstream>

#include "common/exception.h"
#include "mpi/message_passing.h"

namespace nmr {

namespace {

using mpi::kRoot;

namespace fs = std::filesystem;

// Opens with truncation; false when the file cannot be opened or written.
bool writeFile(const fs::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out) return false;
    out << content;
    out.flush();
    return static_cast<bool>(out);
}

void writeJobFile(const fs::path& directory, const char* name, const std::string& content) {
    if (!writeFile(directory / name, content)) {
        throw Exception(std::string("Unable to write ") + name + " file");
    }
}

JobStatus checkForAbort(std::ostream& out, const fs::path& directory) {
    if (std::ifstream(directory / "ABORT")) {
        out << "Job aborted!" << std::endl;
        return JobStatus::Aborted;
    }
    return JobStatus::Running;
}

}  // namespace

bool sendProgressSignal(const std::string& title, const std::string& message, double fraction,
                        std::uint32_t phaseIndex, std::uint32_t phaseCount,
                        const fs::path& directory) {
    std::ostringstream line;
    line << title << '#' << message << '#' << fraction << '#' << phaseIndex << '#' << phaseCount
         << '\n';
    std::ostringstream progress;
    progress << "Progress: " << fraction << '\n';
    const bool messageWritten = writeFile(directory / "message.txt", line.str());
    const bool progressWritten = writeFile(directory / "PROGRESS", progress.str());
    return messageWritten && progressWritten;
}

JobStatus evaluateJobStatus(JobStatus request, std::ostream& out, const fs::path& directory) {
    try {
        switch (request) {
            case JobStatus::Start:
                writeJobFile(directory, "STARTED", "");
                break;
            case JobStatus::Running:
                writeJobFile(directory, "PROGRESS", "Progress Signal\n");
                break;
            case JobStatus::Stopped:
                writeJobFile(directory, "STOPPED", "");
                out << "Job stopped" << std::endl;
                return JobStatus::Stopped;
            default:
                break;
        }
    } catch (const Exception& e) {
        out << "ERROR: " << e.message() << std::endl;
        out << "Job aborted!" << std::endl;
        return JobStatus::Aborted;
    }
    return checkForAbort(out, directory);
}

JobStatus pollJobStatus(JobStatus request, int rank, std::ostream& out, const fs::path& directory) {
    std::int32_t status = 0;
    if (rank == kRoot)
        status = static_cast<std::int32_t>(evaluateJobStatus(request, out, directory));
    mpi::broadcast(status, kRoot);
    return static_cast<JobStatus>(status);
}

StoppedFileGuard::StoppedFileGuard(int rank, fs::path directory)
    : rank_(rank), directory_(std::move(directory)) {}

StoppedFileGuard::~StoppedFileGuard() { writeNow(); }

void StoppedFileGuard::writeNow() const noexcept {
    if (rank_ != kRoot) return;
    try {
        writeFile(directory_ / "STOPPED", "");
    } catch (...) {
        // Nothing can be reported while main is being left; the file is a courtesy.
    }
}

}  // namespace nmr
