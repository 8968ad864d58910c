/*
 * tarn/version.h - the version of libtarn that these headers belong to.
 *
 * The numbers follow the library's release (major changes only with an
 * incompatible interface, which also changes the shared library's soname).
 * TARN_VERSION_NUMBER orders versions: (major << 16) | (minor << 8) | patch.
 */
#ifndef TARN_VERSION_H
#define TARN_VERSION_H

#define TARN_VERSION_MAJOR 0
#define TARN_VERSION_MINOR 1
#define TARN_VERSION_PATCH 0
#define TARN_VERSION_STRING "0.1.0"
#define TARN_VERSION_NUMBER \
    ((TARN_VERSION_MAJOR << 16) | (TARN_VERSION_MINOR << 8) | TARN_VERSION_PATCH)

#endif /* TARN_VERSION_H */
