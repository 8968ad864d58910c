#include "tools/log_lines.h"

namespace tarndev {


bool is_time_text(const std::string &t)
{
    // YYYY-MM-DDTHH:MM:SS.ffffffZ
    static const char kShape[] = "dddd-dd-ddTdd:dd:dd.ddddddZ";
    if (t.size() != sizeof kShape - 1)
        return false;
    for (size_t i = 0; i < t.size(); ++i) {
        const bool digit = t[i] >= '0' && t[i] <= '9';
        if (kShape[i] == 'd' ? !digit : t[i] != kShape[i])
            return false;
    }
    return true;
}

LogPrefix parse_log_prefix(const std::string &line)
{
    LogPrefix p;
    const size_t t_end = line.find(' ');
    if (t_end == std::string::npos || !is_time_text(line.substr(0, t_end)))
        return p;
    const size_t h_end = line.find(' ', t_end + 1);
    if (h_end == std::string::npos)
        return p;
    const size_t close = line.find("]: ", h_end + 1);
    if (close == std::string::npos)
        return p;
    const size_t open = line.rfind('[', close);
    if (open == std::string::npos || open <= h_end + 1 || open + 1 == close)
        return p;
    long pid = 0;
    for (size_t i = open + 1; i < close; ++i) {
        if (line[i] < '0' || line[i] > '9' || pid > 99999999)
            return p;
        pid = pid * 10 + (line[i] - '0');
    }
    p.present = true;
    p.time = line.substr(0, t_end);
    p.host = line.substr(t_end + 1, h_end - t_end - 1);
    p.process = line.substr(h_end + 1, open - h_end - 1);
    p.pid = pid;
    p.length = close + 3;
    return p;
}

}  // namespace tarndev
