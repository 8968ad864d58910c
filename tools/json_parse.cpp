// Parsing the device tools' JSON: a text is read in one pass that builds
// the document and knows, at every value, the path that leads to it, so
// that a value no field could hold is refused with its path like any other
// bad fact, even where the readers would never look (a comment).

#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "tools/device_records.h"

namespace tarndev {
namespace {

// Deeper documents are no device description; the limit also keeps the
// document's own recursive teardown off the end of the stack.
constexpr size_t kMaxDepth = 64;

class PathSax {
public:
    PathSax(json *root, const std::string &source) : dom_(*root, false), source_(source) {}

    bool null() { return scalar(dom_.null()); }
    bool boolean(bool v) { return scalar(dom_.boolean(v)); }
    bool number_integer(json::number_integer_t v) { return scalar(dom_.number_integer(v)); }
    bool number_unsigned(json::number_unsigned_t v) { return scalar(dom_.number_unsigned(v)); }
    bool number_float(json::number_float_t v, const std::string &s)
    {
        // A number too small for a double reads as 0 (or loses its
        // digits): it is refused like one too large, not taken as 0.
        if ((v == 0 && nonzero_digits(s)) || std::fpclassify(v) == FP_SUBNORMAL) {
            const std::string p = path();
            error_ = (p.empty() ? source_ : p) + ": the number " + s + " is out of range";
            return false;
        }
        return scalar(dom_.number_float(v, s));
    }
    bool string(std::string &v) { return scalar(dom_.string(v)); }
    bool binary(json::binary_t &v) { return scalar(dom_.binary(v)); }

    bool start_object(size_t n) { return open(false) && dom_.start_object(n); }
    bool key(std::string &k)
    {
        // JSON leaves a repeated key to the reader; here the later value
        // would silently replace the earlier, so a description that says
        // two things is refused instead.
        Frame &f = frames_.back();
        if (!f.keys.insert(k).second) {
            const std::string p = member(path(frames_.size() - 1), k);
            error_ = p + ": given twice";
            return false;
        }
        f.key = k;
        return dom_.key(k);
    }
    bool end_object() { return close() && dom_.end_object(); }
    bool start_array(size_t n) { return open(true) && dom_.start_array(n); }
    bool end_array() { return close() && dom_.end_array(); }

    bool parse_error(size_t, const std::string &token, const nlohmann::detail::exception &ex)
    {
        if (!error_.empty())
            return false;  // a refusal of our own stopped the parse
        if (ex.id == 406) {
            // JSON has no limit on numbers; a double does.
            const std::string p = path();
            error_ = (p.empty() ? source_ : p) + ": the number " + token + " is out of range";
            return false;
        }
        // Drop nlohmann's "[json.exception.parse_error.101] " tag.
        std::string what = ex.what();
        const size_t close = what.find("] ");
        if (what.compare(0, 1, "[") == 0 && close != std::string::npos)
            what = what.substr(close + 2);
        error_ = source_ + ": not valid JSON: " + what;
        return false;
    }

    const std::string &error() const { return error_; }

private:
    // Whether the mantissa of the number text `s` has a digit other than 0.
    static bool nonzero_digits(const std::string &s)
    {
        for (char c : s) {
            if (c == 'e' || c == 'E')
                break;
            if (c >= '1' && c <= '9')
                return true;
        }
        return false;
    }

    struct Frame {
        bool array;
        size_t index;
        std::string key;
        std::set<std::string> keys;  // of an object, so far
    };

    // The path of the value being read now.
    std::string path() const { return path(frames_.size()); }

    // The path through the outermost `depth` frames.
    std::string path(size_t depth) const
    {
        std::string p;
        for (size_t i = 0; i < depth; ++i)
            p = frames_[i].array ? item(p, frames_[i].index) : member(p, frames_[i].key);
        return p;
    }

    bool scalar(bool ok)
    {
        done();
        return ok;
    }

    void done()
    {
        if (!frames_.empty() && frames_.back().array)
            ++frames_.back().index;
    }

    bool open(bool array)
    {
        if (frames_.size() >= kMaxDepth) {
            const std::string p = path();
            error_ = (p.empty() ? source_ : p) + ": nested deeper than " +
                     std::to_string(kMaxDepth) + " levels";
            return false;
        }
        frames_.push_back(Frame{array, 0, std::string(), {}});
        return true;
    }

    bool close()
    {
        frames_.pop_back();
        done();
        return true;
    }

    nlohmann::detail::json_sax_dom_parser<json> dom_;
    const std::string &source_;
    std::vector<Frame> frames_;
    std::string error_;
};

// The text with every integer written "-0" (outside strings) written
// "-0.0": the parser would give it as the integer 0 and lose its sign,
// while as a number with a fraction its sign reaches the readers, which
// refuse a negative zero where they want a whole number.
std::string signed_zeros_kept(const std::string &text)
{
    std::string out;
    bool in_string = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        out += c;
        if (in_string) {
            if (c == '\\' && i + 1 < text.size())
                out += text[++i];
            else if (c == '"')
                in_string = false;
        } else if (c == '"') {
            in_string = true;
        } else if (c == '-' && i + 1 < text.size() && text[i + 1] == '0' &&
                   (i == 0 || (text[i - 1] != 'e' && text[i - 1] != 'E'))) {
            const char after = i + 2 < text.size() ? text[i + 2] : '\0';
            out += '0';
            ++i;
            if (after != '.' && after != 'e' && after != 'E' && !(after >= '0' && after <= '9'))
                out += ".0";
        }
    }
    return out;
}

}  // namespace

json parse_json(const std::string &text, const std::string &source)
{
    json doc;
    PathSax sax(&doc, source);
    const bool ok = text.find("-0") == std::string::npos
                        ? json::sax_parse(text, &sax)
                        : json::sax_parse(signed_zeros_kept(text), &sax);
    if (!ok || !sax.error().empty())
        throw Refusal{sax.error().empty() ? source + ": not valid JSON" : sax.error()};
    return doc;
}

}  // namespace tarndev
