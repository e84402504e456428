#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>

namespace nmr {

// A supervising application follows a job through small files in the working directory
// and stops it by creating "ABORT". The values are shared with that application and are
// fixed; as a request, any other value is a plain abort check.
enum class JobStatus : std::int32_t {
    Start = 0,    // request: announce the start
    Running = 2,  // request: report progress; result: carry on
    Stopped = 3,  // request: announce the end; result: the job has stopped
    Aborted = 4,  // result: end the job now
};

// The files live in directory, the working directory in a run; tests pass a scratch one.

// Writes "message.txt" (title#message#fraction#phaseIndex#phaseCount) and then "PROGRESS"
// ("Progress: " fraction). True only when both were written; a failure is not reported
// otherwise, since a missing progress display must not stop a simulation.
bool sendProgressSignal(const std::string& title, const std::string& message, double fraction,
                        std::uint32_t phaseIndex, std::uint32_t phaseCount,
                        const std::filesystem::path& directory = ".");

// Process 0's side of a poll: writes the file the request announces and looks for
// "ABORT", printing on out. A job file that cannot be written aborts the job.
JobStatus evaluateJobStatus(JobStatus request, std::ostream& out,
                            const std::filesystem::path& directory = ".");

// Collective: process 0 evaluates the request, printing on out (a run's standard output),
// and every process returns its verdict, so all of them stop at the same poll. The
// requests of the other processes are ignored.
JobStatus pollJobStatus(JobStatus request, int rank, std::ostream& out,
                        const std::filesystem::path& directory = ".");

// Writes an empty "STOPPED" on process 0 when it goes out of scope, so a supervisor sees
// the job end however main is left. Never throws.
class StoppedFileGuard {
public:
    explicit StoppedFileGuard(int rank, std::filesystem::path directory = ".");
    ~StoppedFileGuard();

    // Writes the file now as well. Open MPI's launcher ends the remaining processes as
    // soon as one exits with a non-zero status, which can cut process 0 short between
    // MPI_Finalize and the end of main; writing before the runtime ends closes that gap.
    void writeNow() const noexcept;
    StoppedFileGuard(const StoppedFileGuard&) = delete;
    StoppedFileGuard& operator=(const StoppedFileGuard&) = delete;

private:
    int rank_;
    std::filesystem::path directory_;
};

}  // namespace nmr
