#pragma once
// Owners for the handle kinds the content client uses, one alias per kind, on the unique-handle
// template both binaries share: early returns never leak and never close twice.
#include <windows.h>
// The SDK headers below need <windows.h> first.
#include <bcrypt.h>
#include <wincrypt.h>
#include <winhttp.h>

#include "common/handles_win.h"
#include "common/unique_handle.h"

namespace kesclient {

using common::UniqueFileHandle;
using common::UniqueFindHandle;

struct InternetTraits {
    using Type = HINTERNET;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type handle) noexcept { ::WinHttpCloseHandle(handle); }
};
using UniqueInternet = common::UniqueHandle<InternetTraits>;

struct CertStoreTraits {
    using Type = HCERTSTORE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type store) noexcept { ::CertCloseStore(store, 0); }
};
using UniqueCertStore = common::UniqueHandle<CertStoreTraits>;

struct CertContextTraits {
    using Type = PCCERT_CONTEXT;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type context) noexcept { ::CertFreeCertificateContext(context); }
};
using UniqueCertContext = common::UniqueHandle<CertContextTraits>;

struct ChainEngineTraits {
    using Type = HCERTCHAINENGINE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type engine) noexcept { ::CertFreeCertificateChainEngine(engine); }
};
using UniqueChainEngine = common::UniqueHandle<ChainEngineTraits>;

struct ChainContextTraits {
    using Type = PCCERT_CHAIN_CONTEXT;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type chain) noexcept { ::CertFreeCertificateChain(chain); }
};
using UniqueChainContext = common::UniqueHandle<ChainContextTraits>;

struct AlgorithmTraits {
    using Type = BCRYPT_ALG_HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type algorithm) noexcept { ::BCryptCloseAlgorithmProvider(algorithm, 0); }
};
using UniqueAlgorithm = common::UniqueHandle<AlgorithmTraits>;

struct HashTraits {
    using Type = BCRYPT_HASH_HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type hash) noexcept { ::BCryptDestroyHash(hash); }
};
using UniqueHash = common::UniqueHandle<HashTraits>;

}  // namespace kesclient
