#include "pattern.h"

#include <algorithm>

namespace fe {

std::string Pattern::set(const std::string& text) {
    if (std::string why = too_costly(text); !why.empty()) return why;
    regex_t re;
    std::string anchored = "^(" + text + ")$";
    int r = regcomp(&re, anchored.c_str(), REG_EXTENDED | REG_NOSUB);
    if (r != 0) {
        char msg[256];
        regerror(r, &re, msg, sizeof msg);
        return msg;
    }
    clear();
    re_ = re;
    set_ = true;
    text_ = text;
    return "";
}

// A client's pattern is compiled and run by the server, so patterns whose
// cost can explode are refused: back-references (exponential matching)
// and counted repetitions whose bounds multiply past a few thousand (each
// one copies what it repeats when compiled). Names are matched once per
// source and pattern, so an accepted pattern costs little afterwards.
std::string Pattern::too_costly(const std::string& text) {
    double copies = 1;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            if (text[i + 1] >= '1' && text[i + 1] <= '9') return "back-references are not allowed";
            i++;
        } else if (text[i] == '{') {
            size_t close = text.find('}', i);
            if (close == std::string::npos) break;
            std::string body = text.substr(i + 1, close - i - 1);
            size_t comma = body.find(',');
            std::string hi = comma == std::string::npos ? body : body.substr(comma + 1);
            if (hi.empty()) hi = body.substr(0, comma);
            if (hi.empty() || hi.find_first_not_of("0123456789") != std::string::npos) continue;
            copies *= std::max(1.0, std::stod(hi.substr(0, 6)));
            if (copies > 4096) return "counted repetitions too large";
        }
    }
    return "";
}

}  // namespace fe
