#pragma once

#include <memory>
#include <string>

namespace nmr {

// Root of the program's own error family. It deliberately does not derive from
// std::exception: catch sites name these classes, and library or parser exceptions
// are caught separately where they can occur.
//
// The message lives on the heap so that the object stays one pointer wide and a copy
// owns an independent copy of the text.
//
// Some messages are fixed texts that scripts and users have long matched on ("Did not find
// enough data for a grid"), which leaves no room for the file, the sizes or the operating
// system's reason. Those go into the detail: a second line for the user, empty when there
// is nothing to add, shown where the program has a place for it (standard error) and never
// in place of the message.
class Exception {
public:
    explicit Exception(std::string message);
    Exception(std::string message, std::string detail);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    Exception(Exception&&) noexcept = default;
    Exception& operator=(Exception&&) noexcept = default;
    virtual ~Exception();

    virtual std::string message() const;
    std::string detail() const;
    // Throws a copy of the most-derived type, so a handler holding an Exception&
    // can re-throw without slicing.
    [[noreturn]] virtual void raise() const;

private:
    struct Text {
        std::string message;
        std::string detail;
    };
    std::unique_ptr<Text> text_;
};

// Declares a subclass that only changes the dynamic type. The arguments are class names,
// which cannot be parenthesised.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define NMR_DECLARE_EXCEPTION(Name, Base)                                \
    class Name : public Base {                                           \
    public:                                                              \
        explicit Name(std::string message) : Base(std::move(message)) {} \
        Name(std::string message, std::string detail)                    \
            : Base(std::move(message), std::move(detail)) {}             \
        std::string message() const override { return Base::message(); } \
        [[noreturn]] void raise() const override { throw *this; }        \
    }
// NOLINTEND(bugprone-macro-parentheses)

// Opening, reading, parsing or writing a grid file failed.
NMR_DECLARE_EXCEPTION(FileAccessException, Exception);
// Storage for a grid could not be allocated.
NMR_DECLARE_EXCEPTION(MemoryAllocationException, Exception);
// The progress reporter was asked to cancel.
NMR_DECLARE_EXCEPTION(UserCancelException, Exception);

// The text of the exception being handled, for use inside a catch block: the message of
// one of the system's exceptions, "out of memory" for a failed allocation, what() of any
// other standard exception (the YAML library's errors carry line and column there).
std::string currentExceptionText();
// The detail of the exception being handled (see Exception), empty for any other kind.
std::string currentExceptionDetail();

}  // namespace nmr
