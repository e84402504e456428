#pragma once

#include <cstdint>
#include <string>

namespace nmr {

// Progress of a long operation (grid loading, saving). Library classes receive one
// from their caller; a run of the simulator passes NullProgressReporter and reports
// through its job files instead.
class ProgressReporter {
public:
    virtual ~ProgressReporter() = default;
    virtual void start(const std::string& title, std::uint64_t total) = 0;
    virtual void setTitle(const std::string& title) = 0;
    virtual void setMessage(const std::string& message) = 0;
    virtual void setTotal(std::uint64_t total) = 0;
    virtual void setDone(std::uint64_t done) = 0;
    virtual void step() = 0;
    // Like step(), but throws UserCancelException when a cancel was requested.
    virtual void stepChecked() = 0;
    virtual void requestCancel() = 0;
    virtual bool cancelRequested() const = 0;
    virtual bool running() const = 0;
    virtual void finish() = 0;
};

class NullProgressReporter : public ProgressReporter {
public:
    void start(const std::string&, std::uint64_t) override {}
    void setTitle(const std::string&) override {}
    void setMessage(const std::string&) override {}
    void setTotal(std::uint64_t) override {}
    void setDone(std::uint64_t) override {}
    void step() override {}
    void stepChecked() override {}
    void requestCancel() override {}
    bool cancelRequested() const override { return false; }
    bool running() const override { return false; }
    void finish() override {}
};

}  // namespace nmr
