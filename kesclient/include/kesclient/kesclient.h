#pragma once
// The content client's binary interface: a plain C ABI so that the tool and the DLL need not share
// a C++ runtime. The DLL exports these functions by ordinal only (see kesclient.def); the tool binds
// them with GetProcAddress(module, MAKEINTRESOURCEA(ordinal)).
//
// Text is UTF-8. Strings and lists are borrowed views: the callee copies what it keeps, and never
// frees what the caller passed. No exception ever crosses this boundary.
#include <stddef.h>
#include <stdint.h>
#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

// Result codes of a download run. Values are part of the ABI.
typedef enum KesClientResult {
    KESCLIENT_SUCCESS = 0,
    KESCLIENT_PEM_FILE_FAILED = 1,
    KESCLIENT_CREATE_CLIENT_FAILED = 2,
    KESCLIENT_INIT_FAILED = 3,
    KESCLIENT_DOWNLOAD_PENDING = 4,
    KESCLIENT_INVALID_THUMBPRINT = 5,
    KESCLIENT_QUEUE_DOWNLOAD_FAILED = 6,
    KESCLIENT_DOWNLOAD_FAILED = 7,
    KESCLIENT_VERIFY_FAILED = 8,
    KESCLIENT_HTTP_CERTIFICATE_ERROR = 9,
    KESCLIENT_WRONG_SIZE_ERROR = 10,
    KESCLIENT_WRONG_CHECKSUM_ERROR = 11,
    KESCLIENT_TRANSFER_INVALID_URI_ERROR = 12,
    KESCLIENT_MAXCOUNT = 13  // bound: every value from here on is outside the table
} KesClientResult;

// How the downloaded file is treated: EXE is stored as it is; TAR (.tar, .tar.gz, .tgz) is
// verified, then extracted into the local folder. ZIP is named but never extracted.
typedef enum KesClientPayloadType {
    KESCLIENT_PAYLOAD_EXE = 0,
    KESCLIENT_PAYLOAD_TAR = 1,
    KESCLIENT_PAYLOAD_ZIP = 2
} KesClientPayloadType;

// Log levels of the callback: 0 debug, 1 info, 2 warning, 3 error.
typedef void (*KesClientLogCallback)(int level, const char* format, va_list args);

typedef struct KesClientString {
    const char* data;  // UTF-8, not necessarily NUL-terminated; may be null when size is 0
    size_t size;
} KesClientString;

typedef struct KesClientStringList {
    const KesClientString* items;
    size_t count;
} KesClientStringList;

typedef struct KesClientDownload KesClientDownload;  // opaque

typedef struct KesClientDownloadList {
    KesClientDownload* const* items;
    size_t count;
} KesClientDownloadList;

// Ordinal 1: runs the downloads one after the other into localFolder; the first failure decides.
typedef int (*KesClientRunDownloadsFn)(const KesClientString* localFolder,
                                       KesClientDownloadList downloads);

// Ordinal 2: describes one download. urls are mirrors, tried in order; the file name of the first
// one names the local file. thumbprints (hex SHA-1 or SHA-256 of the server's leaf certificate)
// select pinning when not empty. proxies are tried in order after the PAC script's answer.
// checksum is hex SHA-256 or SHA-512, optionally "sha256:"/"sha512:" prefixed; empty skips it.
// expectedSize 0 or less means unknown. Returns null when out of memory.
typedef KesClientDownload* (*KesClientCreateDownloadFn)(
    const KesClientString* id, int64_t expectedSize, int verifySize, KesClientStringList urls,
    KesClientStringList thumbprints, KesClientStringList proxies, const KesClientString* pacUrl,
    const KesClientString* localFolder, const KesClientString* checksum, int reserved,
    int payloadType);

// Ordinal 3: releases a download; null is ignored.
typedef void (*KesClientReleaseDownloadFn)(KesClientDownload* download);

// Ordinal 4: the log sink for every later call (process-wide; null turns logging off).
typedef void (*KesClientSetLogCallbackFn)(KesClientLogCallback callback);

// Ordinals 5 and 8 choose, for the whole process, how later runs validate servers; the last call
// wins. A download created with thumbprints is validated by them instead. With no choice at all a
// run fails with KESCLIENT_INIT_FAILED. The bundle is read when a run starts: an unreadable, empty
// or invalid one fails that run with KESCLIENT_PEM_FILE_FAILED.

// Ordinal 5: validate servers against the certificates of this PEM bundle only.
typedef void (*KesClientUsePemFileFn)(const KesClientString* pemPath);

// Ordinal 8: validate servers against the system's trusted roots (when *enable is non-zero).
typedef void (*KesClientUseSystemStoreFn)(const int* enable);

enum KesClientOrdinal {
    KESCLIENT_ORDINAL_RUN_DOWNLOADS = 1,
    KESCLIENT_ORDINAL_CREATE_DOWNLOAD = 2,
    KESCLIENT_ORDINAL_RELEASE_DOWNLOAD = 3,
    KESCLIENT_ORDINAL_SET_LOG_CALLBACK = 4,
    KESCLIENT_ORDINAL_USE_PEM_FILE = 5,
    KESCLIENT_ORDINAL_USE_SYSTEM_STORE = 8
};

#ifdef __cplusplus
}  // extern "C"
#endif
