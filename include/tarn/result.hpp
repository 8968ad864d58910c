// tarn/result.hpp - failures as values for the C++ API.
//
// A Status says what failed (a code), in which call, and carries the line
// the library reported, when the process has a way to read its reports (see
// Library::Options::take_report).  Result<T> is a T or a Status.  Neither
// throws: reading the value of a failed Result stops the process, as
// dereferencing an empty std::optional would be undefined; test first.
//
// Header-only C++17; builds with -fno-exceptions -fno-rtti.
#ifndef TARN_RESULT_HPP
#define TARN_RESULT_HPP

#include <stdlib.h>

#include <ostream>
#include <string>
#include <utility>
#include <variant>

namespace tarn {

enum class Errc {
    ok = 0,
    not_found,         // the library answered "no such record" and reported nothing
    failed,            // the library reported a failure (Status::report has its line)
    not_found_or_failed,  // a negative answer, with no way to read the library's reports
    already_open,      // a second Library in this process
    wrong_thread,      // called from a thread other than the owner's
    closed,            // the Library was moved from or closed
    invalid_argument,  // refused before any library call
    walk_interrupted,  // another walk of the same database started meanwhile
    bus_failed,        // a platform bus call failed (Status::error holds errno)
};

inline const char *errc_name(Errc e)
{
    switch (e) {
    case Errc::ok: return "ok";
    case Errc::not_found: return "not found";
    case Errc::failed: return "failed";
    case Errc::not_found_or_failed: return "not found or failed";
    case Errc::already_open: return "already open";
    case Errc::wrong_thread: return "wrong thread";
    case Errc::closed: return "closed";
    case Errc::invalid_argument: return "invalid argument";
    case Errc::walk_interrupted: return "walk interrupted";
    case Errc::bus_failed: return "bus failed";
    }
    return "?";
}

class Status {
public:
    Status() = default;
    Status(Errc code, std::string what, std::string report = {}, int error = 0)
        : code_(code), what_(std::move(what)), report_(std::move(report)), error_(error)
    {
    }

    bool ok() const { return code_ == Errc::ok; }
    explicit operator bool() const { return ok(); }
    Errc code() const { return code_; }
    // The call or step that failed: "tarn_get_context_info", "bus_bind".
    const std::string &what() const { return what_; }
    // The line the library reported for this failure, or "".
    const std::string &report() const { return report_; }
    // errno of a failed platform call, else 0.
    int error() const { return error_; }

    // "tarn_get_table_info: failed: <report>" in one line.
    std::string message() const
    {
        if (ok())
            return "ok";
        std::string m = what_ + ": " + errc_name(code_);
        if (!report_.empty())
            m += ": " + report_;
        return m;
    }
    friend std::ostream &operator<<(std::ostream &os, const Status &s) { return os << s.message(); }

private:
    Errc code_ = Errc::ok;
    std::string what_;
    std::string report_;
    int error_ = 0;
};

// Holds exactly one of the two, so a successful answer costs no Status.
template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : v_(std::in_place_index<0>, std::move(value)) {}
    Result(Status status) : v_(std::in_place_index<1>, std::move(status))
    {
        if (std::get<1>(v_).ok())
            std::get<1>(v_) = Status(Errc::failed, "Result", "a failed result made from an ok status");
    }

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }
    const Status &status() const
    {
        static const Status kOk;
        return ok() ? kOk : *std::get_if<1>(&v_);
    }

    const T &value() const &
    {
        check();
        return *std::get_if<0>(&v_);
    }
    T &value() &
    {
        check();
        return *std::get_if<0>(&v_);
    }
    T &&value() &&
    {
        check();
        return std::move(*std::get_if<0>(&v_));
    }
    const T &operator*() const & { return value(); }
    T &operator*() & { return value(); }
    const T *operator->() const { return &value(); }
    T *operator->() { return &value(); }
    template <class U>
    T value_or(U &&fallback) const &
    {
        return ok() ? *std::get_if<0>(&v_) : static_cast<T>(std::forward<U>(fallback));
    }

private:
    void check() const
    {
        if (!ok())
            abort();
    }
    std::variant<T, Status> v_;
};

}  // namespace tarn

#endif
