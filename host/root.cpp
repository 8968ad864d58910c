// The host root: the one directory that makes a set of processes one
// simulated device, and the mapping of database URIs to directories in it.

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace {

const char kDefaultRoot[] = "/dev/shm/tarnhost";

// mkdir that accepts an existing directory (but not an existing file).
int make_dir(const char *path)
{
    if (mkdir(path, 0700) == 0)
        return 0;
    int err = errno;
    if (err != EEXIST)
        return err;
    struct stat st;
    if (stat(path, &st) != 0)
        return errno;
    return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

bool scheme_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

bool path_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-' ||
           c == '/';
}

// Appends [s, s + n) at *pos, keeping room for the terminator.
bool append(char *out, size_t size, size_t *pos, const char *s, size_t n)
{
    if (n >= size - *pos)
        return false;
    memcpy(out + *pos, s, n);
    *pos += n;
    out[*pos] = '\0';
    return true;
}

}  // namespace

extern "C" {

const char *tarnhost_root(void)
{
    // Read on every call: tests move the root between cases.
    const char *root = getenv("TARNHOST_ROOT");
    return (root != nullptr && root[0] != '\0') ? root : kDefaultRoot;
}

int tarnhost_root_prepare(void)
{
    const char *root = tarnhost_root();
    // The parent must exist already: creating a whole chain would hide a
    // mistyped TARNHOST_ROOT behind a fresh, empty device.
    int err = make_dir(root);
    if (err != 0)
        return err;
    static const char *const kSubdirs[] = {"kvs", "log", "bus", "supervisor"};
    for (const char *sub : kSubdirs) {
        char path[4096];
        size_t n = strlen(root);
        if (n + 1 + strlen(sub) + 1 > sizeof path)
            return ENAMETOOLONG;
        memcpy(path, root, n);
        path[n] = '/';
        strcpy(path + n + 1, sub);
        err = make_dir(path);
        if (err != 0)
            return err;
    }
    return 0;
}

uint32_t tarnhost_kvs_path(const char *uri, char *out, size_t size)
{
    if (uri == nullptr || out == nullptr || size == 0)
        return KVS_ERR_BAD_URI;
    out[0] = '\0';

    const char *colon = strchr(uri, ':');
    if (colon == nullptr || colon == uri)
        return KVS_ERR_BAD_URI;
    for (const char *p = uri; p < colon; ++p)
        if (!scheme_char(*p))
            return KVS_ERR_BAD_URI;

    const char *root = tarnhost_root();
    size_t pos = 0;
    if (!append(out, size, &pos, root, strlen(root)) ||
        !append(out, size, &pos, "/kvs/", 5) ||
        !append(out, size, &pos, uri, static_cast<size_t>(colon - uri)))
        goto bad;

    {
        const char *p = colon + 1;
        int components = 0;
        for (const char *c = p; *c != '\0'; ++c)
            if (!path_char(*c))
                goto bad;
        while (*p != '\0') {
            while (*p == '/')
                ++p;
            const char *end = p;
            while (*end != '\0' && *end != '/')
                ++end;
            size_t n = static_cast<size_t>(end - p);
            if (n == 0)
                break;
            if ((n == 1 && p[0] == '.') ||
                (n == 2 && p[0] == '.' && p[1] == '.'))
                goto bad;
            // The store keeps these two files in every database directory;
            // a database of that name would collide with its parent's.
            if ((n == 8 && memcmp(p, "data.mdb", 8) == 0) ||
                (n == 8 && memcmp(p, "lock.mdb", 8) == 0))
                goto bad;
            if (!append(out, size, &pos, "/", 1) ||
                !append(out, size, &pos, p, n))
                goto bad;
            ++components;
            p = end;
        }
        if (components == 0)
            goto bad;
    }
    return 0;

bad:
    out[0] = '\0';
    return KVS_ERR_BAD_URI;
}

}  // extern "C"
