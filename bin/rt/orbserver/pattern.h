// A reader's select or reject pattern: a POSIX extended expression matched
// against whole source names. Patterns come from clients and run in the
// server, so the ones whose cost can explode are refused when set.
#pragma once

#include <regex.h>

#include <string>

namespace fe {

class Pattern {
public:
    Pattern() = default;
    ~Pattern() { clear(); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    // "" on success, else the compiler's message; the old pattern stays on failure.
    std::string set(const std::string& text);
    void clear() {
        if (set_) regfree(&re_);
        set_ = false;
        text_.clear();
    }
    bool active() const { return set_; }
    bool matches(const char* name) const { return regexec(&re_, name, 0, nullptr, 0) == 0; }
    const std::string& text() const { return text_; }

private:
    static std::string too_costly(const std::string& text);

    regex_t re_{};
    bool set_ = false;
    std::string text_;
};

}  // namespace fe
