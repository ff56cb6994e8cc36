#pragma once
// Owners for the handle kinds the content client uses, one alias per kind, on the project's
// unique-handle template: early returns never leak and never close twice.
#include <windows.h>
// The SDK headers below need <windows.h> first.
#include <bcrypt.h>
#include <wincrypt.h>
#include <winhttp.h>

#include "core/unique_handle.h"

namespace kesclient {

struct InternetTraits {
    using Type = HINTERNET;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type handle) noexcept { ::WinHttpCloseHandle(handle); }
};
using UniqueInternet = core::UniqueHandle<InternetTraits>;

struct FileTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
using UniqueFile = core::UniqueHandle<FileTraits>;

struct FindTraits {
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type handle) noexcept { ::FindClose(handle); }
};
using UniqueFind = core::UniqueHandle<FindTraits>;

struct CertStoreTraits {
    using Type = HCERTSTORE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type store) noexcept { ::CertCloseStore(store, 0); }
};
using UniqueCertStore = core::UniqueHandle<CertStoreTraits>;

struct CertContextTraits {
    using Type = PCCERT_CONTEXT;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type context) noexcept { ::CertFreeCertificateContext(context); }
};
using UniqueCertContext = core::UniqueHandle<CertContextTraits>;

struct ChainEngineTraits {
    using Type = HCERTCHAINENGINE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type engine) noexcept { ::CertFreeCertificateChainEngine(engine); }
};
using UniqueChainEngine = core::UniqueHandle<ChainEngineTraits>;

struct ChainContextTraits {
    using Type = PCCERT_CHAIN_CONTEXT;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type chain) noexcept { ::CertFreeCertificateChain(chain); }
};
using UniqueChainContext = core::UniqueHandle<ChainContextTraits>;

struct AlgorithmTraits {
    using Type = BCRYPT_ALG_HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type algorithm) noexcept { ::BCryptCloseAlgorithmProvider(algorithm, 0); }
};
using UniqueAlgorithm = core::UniqueHandle<AlgorithmTraits>;

struct HashTraits {
    using Type = BCRYPT_HASH_HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type hash) noexcept { ::BCryptDestroyHash(hash); }
};
using UniqueHash = core::UniqueHandle<HashTraits>;

}  // namespace kesclient
