// Checks shared by the tests: several values compared at once, text searched, standard error captured, and
// conditions polled with a bound.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

namespace testsupport {

// The values joined by spaces, to compare several fields at once.
template <class... T>
std::string words(const T&... v) {
    std::ostringstream o;
    o.precision(17);
    ((o << v << ' '), ...);
    std::string s = o.str();
    return s.substr(0, s.size() - 1);
}

// Success when text contains part; the failure shows the text.
inline testing::AssertionResult has(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

inline size_t count(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) n++;
    return n;
}

// What f writes to standard error.
template <class F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// Success when f() returns -1 and writes part to standard error.
template <class F>
testing::AssertionResult fails_saying(F f, const std::string& part) {
    int rc = 0;
    std::string err = stderr_of([&] { rc = f(); });
    if (rc != -1) return testing::AssertionFailure() << "returned " << rc << ", not -1; stderr:\n" << err;
    return has(err, part);
}

// Polls pred until it holds or the bound passes; the bound only stops a
// broken run from hanging, it is not a measurement.
inline bool eventually(const std::function<bool()>& pred, double seconds = 25) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (; std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(50)))
        if (pred()) return true;
    return pred();
}

// Sets an environment variable for the life of the object, then restores what it was.
struct SetEnv {
    std::string name;
    std::optional<std::string> old;
    SetEnv(const char* n, const std::string& value) : name(n) {
        if (const char* v = getenv(n)) old = v;
        setenv(n, value.c_str(), 1);
    }
    ~SetEnv() { old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str()); }
};

}  // namespace testsupport
