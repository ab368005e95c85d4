#include "stock/printable.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "stock/allot.h"

int printable(int c) {
    c &= 0xff;
    return c >= 32 && c < 127;
}

char* strprintable(const void* data, long n, long max) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::string out;
    for (long i = 0; p && i < n; i++) {
        unsigned c = p[i];
        char esc[8];
        if (c == '\\') {
            strcpy(esc, "\\\\");
        } else if (printable(c)) {
            esc[0] = (char)c;
            esc[1] = 0;
        } else if (c == '\n') {
            strcpy(esc, "\\n");
        } else if (c == '\t') {
            strcpy(esc, "\\t");
        } else if (c == '\r') {
            strcpy(esc, "\\r");
        } else {
            snprintf(esc, sizeof esc, "\\x%02x", c);
        }
        if (max >= 0 && (long)(out.size() + strlen(esc)) > max) break;
        out += esc;
    }
    return allot_strdup(out.c_str(), "printable");
}

void hexdump(FILE* fp, const void* data, long n) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    if (!fp || !p) return;
    for (long off = 0; off < n; off += 16) {
        char line[96];
        int k = snprintf(line, sizeof line, "%08lx ", (unsigned long)off);
        for (long i = 0; i < 16; i++) {
            if (off + i < n)
                k += snprintf(line + k, sizeof line - k, " %02x", p[off + i]);
            else
                k += snprintf(line + k, sizeof line - k, "   ");
            if (i == 7) line[k++] = ' ';
        }
        k += snprintf(line + k, sizeof line - k, "  ");
        for (long i = 0; i < 16 && off + i < n; i++) line[k++] = printable(p[off + i]) ? (char)p[off + i] : '.';
        line[k++] = '\n';
        fwrite(line, 1, k, fp);
    }
}
