// Sharing a device with a group, on purpose: TARNHOST_GROUP names the group
// whose members may use the root (and, through it, each other's sockets,
// databases and logs).  Without it a root is its owner's alone.

#include <errno.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "host/rootfs.h"

namespace tarnhost_rootfs {

namespace {

const char kUnknownGroupText[] =
    "TARNHOST_GROUP names no group (%s); name an existing group, or unset "
    "it to keep the device to yourself";
const char kNotMemberText[] =
    "TARNHOST_GROUP names the group %s, and you (uid %u) are not in it; "
    "join the group, or unset TARNHOST_GROUP";

bool member_of(gid_t gid)
{
    if (getegid() == gid)
        return true;
    int n = getgroups(0, nullptr);
    if (n <= 0)
        return false;
    std::vector<gid_t> groups(static_cast<size_t>(n));
    n = getgroups(n, groups.data());
    for (int i = 0; i < n; ++i)
        if (groups[static_cast<size_t>(i)] == gid)
            return true;
    return false;
}

// The group named by `text` (a name or a decimal gid); false when none.
bool resolve(const std::string &text, gid_t *gid, std::string *name)
{
    // Looked up once per text: group databases can be slow to ask.
    static std::mutex mu;
    static std::string last_text;
    static gid_t last_gid = 0;
    static std::string last_name;
    static bool last_ok = false;
    std::lock_guard<std::mutex> lock(mu);
    if (text != last_text || last_name.empty()) {
        last_text = text;
        last_ok = false;
        std::vector<char> buf(16384);
        group gr, *found = nullptr;
        char *end = nullptr;
        unsigned long num = strtoul(text.c_str(), &end, 10);
        if (!text.empty() && *end == '\0')
            getgrgid_r(static_cast<gid_t>(num), &gr, buf.data(), buf.size(),
                       &found);
        else
            getgrnam_r(text.c_str(), &gr, buf.data(), buf.size(), &found);
        if (found != nullptr) {
            last_ok = true;
            last_gid = found->gr_gid;
            last_name = found->gr_name;
        } else if (!text.empty() && *end == '\0') {
            // A gid without a name is still a group.
            last_ok = true;
            last_gid = static_cast<gid_t>(num);
            last_name = text;
        } else {
            last_name.clear();
        }
    }
    *gid = last_gid;
    *name = last_name;
    return last_ok;
}

}  // namespace

bool shared_with_caller(const struct stat &st, std::string *name)
{
    const bool shared = S_ISDIR(st.st_mode) ? (st.st_mode & S_ISGID) != 0
                                            : (st.st_mode & 060) == 060;
    if (!shared || (st.st_mode & 002) != 0 || !member_of(st.st_gid))
        return false;
    gid_t gid = 0;
    if (!resolve(std::to_string(st.st_gid), &gid, name))
        *name = std::to_string(st.st_gid);
    return true;
}

int device_group(Sharing *out)
{
    *out = Sharing{};
    const char *v = getenv("TARNHOST_GROUP");
    if (v == nullptr || *v == '\0')
        return 0;
    if (!resolve(v, &out->gid, &out->name))
        return refuse(EINVAL, kUnknownGroupText, v);
    if (!member_of(out->gid))
        return refuse(EPERM, kNotMemberText, out->name.c_str(),
                      static_cast<unsigned>(geteuid()));
    out->on = true;
    return 0;
}

void share_new(int fd, mode_t mode)
{
    Sharing s;
    if (device_group(&s) != 0 || !s.on)
        return;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_uid != geteuid())
        return;
    if (st.st_gid != s.gid && fchown(fd, static_cast<uid_t>(-1), s.gid) != 0)
        return;
    // Set-group-id directories hand the group on to what is made in them.
    if ((st.st_mode & 07777) != mode)
        fchmod(fd, mode);
}

int share_socket(int dirfd, const char *name)
{
    Sharing s;
    int err = device_group(&s);
    if (err != 0)
        return err;
    if (s.on && fchownat(dirfd, name, static_cast<uid_t>(-1), s.gid,
                         AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    return fchmodat(dirfd, name, s.on ? 0660 : 0600, 0) == 0 ? 0 : errno;
}

}  // namespace tarnhost_rootfs
