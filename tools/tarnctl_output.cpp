// tarnctl's output conventions (tarnctl_output.h).

#include "tools/tarnctl_output.h"

#include <errno.h>
#include <locale.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>

namespace tarnctl {

namespace {

bool g_json_errors = false;
bool g_output_failed = false;
int g_output_errno = 0;  // why the first failed write failed

// Decodes one UTF-8 sequence at s[i]; its length, or 0 when the bytes are
// not a valid, shortest-form sequence of a Unicode scalar value.
size_t utf8_at(const std::string &s, size_t i, uint32_t *cp)
{
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t len;
    uint32_t v;
    if (c < 0x80) {
        *cp = c;
        return 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
        v = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        v = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        v = c & 0x07;
    } else {
        return 0;
    }
    if (len > s.size() - i)
        return 0;
    for (size_t k = 1; k < len; ++k) {
        const unsigned char b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80)
            return 0;
        v = (v << 6) | (b & 0x3F);
    }
    if ((len == 3 && v < 0x800) || (len == 4 && (v < 0x10000 || v > 0x10FFFF)) ||
        (v >= 0xD800 && v <= 0xDFFF))
        return 0;
    *cp = v;
    return len;
}

bool is_control(uint32_t cp)
{
    return cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp <= 0x9F);
}

// wcwidth() in a UTF-8 locale of this thread only, so that nothing else in
// the process (libtarn included) sees another locale.
int columns_of(uint32_t cp)
{
    static locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (utf8 == static_cast<locale_t>(0))
        return 1;
    const locale_t old = uselocale(utf8);
    const int w = wcwidth(static_cast<wchar_t>(cp));
    uselocale(old);
    return w < 0 ? 1 : w;
}

// Standard output's writes, with the reason of the first one that fails
// kept: stdio only sets an error flag, and errno is long gone by the time
// the command ends and reports it.
ssize_t write_stdout(void *, const char *buf, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(STDOUT_FILENO, buf + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (g_output_errno == 0)
                g_output_errno = n < 0 ? errno : EIO;
            // What was written, as a cookie stream reports a failure; never
            // negative.
            return static_cast<ssize_t>(done);
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(size);
}

// A reader that went away (tarnctl show interfaces | head -1) wanted no
// more: the command ends without a word, by SIGPIPE, as git and ip do, so
// that a pipeline sees the usual status (141 under "set -o pipefail").  It
// comes here only after the command has finished and cleaned up (a watcher
// unbound, an apply's changes announced): SIGPIPE is ignored until then.
[[noreturn]] void end_by_sigpipe()
{
    signal(SIGPIPE, SIG_DFL);
    sigset_t pipe_only;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigprocmask(SIG_UNBLOCK, &pipe_only, nullptr);
    raise(SIGPIPE);
    _exit(128 + SIGPIPE);
}

void note_write_error()
{
    if (ferror(stdout) && !g_output_failed) {
        g_output_failed = true;
        if (g_output_errno == 0)
            g_output_errno = errno;
    }
}

}  // namespace

void keep_write_errors()
{
    cookie_io_functions_t io;
    memset(&io, 0, sizeof io);
    io.write = write_stdout;
    FILE *out = fopencookie(nullptr, "w", io);
    if (out == nullptr)
        return;  // stdio's own stream still works; only the reason is lost
    setvbuf(out, nullptr, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, BUFSIZ);
    stdout = out;
}

std::string escaped(const std::string &raw)
{
    std::string out;
    for (size_t i = 0; i < raw.size();) {
        uint32_t cp = 0;
        const size_t n = utf8_at(raw, i, &cp);
        if (n == 0 || is_control(cp)) {
            const unsigned char c = static_cast<unsigned char>(raw[i]);
            const uint32_t shown = n == 0 ? c : cp;
            char buf[8];
            if (shown == '\n')
                out += "\\n";
            else if (shown == '\t')
                out += "\\t";
            else if (shown == '\r')
                out += "\\r";
            else if (shown == 0x1B)
                out += "\\e";
            else {
                // A C1 control is two bytes in UTF-8; show both.
                for (size_t k = 0; k < (n == 0 ? 1 : n); ++k) {
                    snprintf(buf, sizeof buf, "\\x%02X",
                             static_cast<unsigned char>(raw[i + k]));
                    out += buf;
                }
            }
            i += n == 0 ? 1 : n;
            continue;
        }
        if (cp == '\\')
            out += "\\\\";
        else
            out.append(raw, i, n);
        i += n;
    }
    return out;
}

size_t display_width(const std::string &text)
{
    size_t w = 0;
    for (size_t i = 0; i < text.size();) {
        uint32_t cp = 0;
        size_t n = utf8_at(text, i, &cp);
        if (n == 0) {
            w += 4;  // shown as \xNN
            i += 1;
            continue;
        }
        w += static_cast<size_t>(columns_of(cp));
        i += n;
    }
    return w;
}

void print_table(const Row &header, const std::vector<Row> &rows)
{
    std::vector<Row> shown;
    shown.reserve(rows.size() + 1);
    auto add = [&](const Row &r) {
        Row e;
        for (const std::string &cell : r)
            e.push_back(escaped(cell));
        shown.push_back(e);
    };
    add(header);
    for (const Row &r : rows)
        add(r);
    std::vector<size_t> width(header.size(), 0);
    for (const Row &r : shown)
        for (size_t i = 0; i < r.size() && i < width.size(); ++i)
            width[i] = std::max(width[i], display_width(r[i]));
    for (const Row &r : shown) {
        std::string line;
        for (size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size() && i < width.size())
                line += std::string(width[i] - display_width(r[i]) + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
        printf("%s\n", line.c_str());
    }
    note_write_error();
}

std::string counted(size_t n, const char *singular, const char *plural)
{
    return std::to_string(n) + " " + (n == 1 ? singular : plural);
}

void print_json(json doc)
{
    doc["schema"] = kJsonSchema;
    // Invalid UTF-8 in a name is replaced, not fatal: JSON text must be
    // UTF-8.
    printf("%s\n", doc.dump(2, ' ', false, json::error_handler_t::replace).c_str());
    note_write_error();
}

void print_json_line(json doc)
{
    doc["schema"] = kJsonSchema;
    printf("%s\n", doc.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    fflush(stdout);
    note_write_error();
}

std::string ranges_text(const std::set<uint32_t> &s)
{
    std::string out;
    for (auto it = s.begin(); it != s.end();) {
        uint32_t lo = *it, hi = lo;
        ++it;
        while (it != s.end() && *it == hi + 1)
            hi = *it++;
        if (!out.empty())
            out += ",";
        out += std::to_string(lo);
        if (hi != lo)
            out += "-" + std::to_string(hi);
    }
    return out;
}

std::set<uint32_t> bitmap_set(const uint8_t *bits, uint32_t count)
{
    std::set<uint32_t> s;
    for (uint32_t i = 0; i < count; ++i)
        if ((bits[i / 8] & (0x80u >> (i % 8))) != 0)
            s.insert(i);
    return s;
}

json or_null(bool present, const json &value)
{
    return present ? value : json(nullptr);
}

void set_json_errors(bool on) { g_json_errors = on; }

bool json_errors() { return g_json_errors; }

int report(const std::string &command, int status, const std::string &message)
{
    if (g_json_errors) {
        json doc = {{"schema", kJsonSchema},
                    {"error",
                     {{"command", command}, {"message", message}, {"status", status}}}};
        fprintf(stderr, "%s\n",
                doc.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        // The message may quote a name: it stays on one line.
        fprintf(stderr, "tarnctl%s%s: %s\n", command.empty() ? "" : " ", command.c_str(),
                escaped(message).c_str());
    }
    return status;
}

int reportf(const std::string &command, int status, const char *format, ...)
{
    char buf[2048];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    return report(command, status, buf);
}

namespace {
std::string g_done;  // what the command did, for a write error at its end
}

void set_done(const std::string &what) { g_done = what; }

int finish_output(const char *command, int status)
{
    errno = 0;
    const bool flush_failed = fflush(stdout) != 0;
    const int flush_errno = errno;
    if (!flush_failed && !ferror(stdout) && !g_output_failed)
        return status;
    const int err = g_output_errno != 0 ? g_output_errno : flush_errno;
    if (err == EPIPE)
        end_by_sigpipe();
    return report(command, 1,
                  (g_done.empty() ? std::string() : g_done + ", but ") +
                      "cannot write the output: " +
                      (err != 0 ? strerror(err) : "write error") +
                      "; check where standard output goes (a full disk, a closed pipe)");
}

bool output_failed()
{
    note_write_error();
    return g_output_failed;
}

}  // namespace tarnctl
