/* Identity of this device. The host's thread. */
#include <oxni/base/agentid.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <windows.h>
#include <bcrypt.h>

#include <liboxni_agentid/host.h>
#include <oxni/base/algo.h>

static constexpr size_t MD5_BYTES = 16;

static std::string s_device_id; /* empty: use the machine's own id */

void oxnih_set_device_id(const char *id)
{
    s_device_id = id == nullptr ? "" : id;
}

static std::string to_utf8(const wchar_t *text)
{
    char narrow[4 * 64];
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow, sizeof(narrow), nullptr, nullptr);

    return bytes > 0 ? narrow : "";
}

static std::string machine_id()
{
    wchar_t text[64];
    DWORD bytes = sizeof(text), chars = 64;

    /* Unlike network addresses, it does not change until Windows is reinstalled. */
    if (RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Cryptography", L"MachineGuid",
                     RRF_RT_REG_SZ, nullptr, text, &bytes) == ERROR_SUCCESS)
        return to_utf8(text);
    return GetComputerNameW(text, &chars) ? to_utf8(text) : "";
}

static std::string device_id()
{
    return s_device_id.empty() ? machine_id() : s_device_id;
}

static bool md5(const std::string &text, uint8_t digest[MD5_BYTES])
{
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    bool done;

    if (BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_MD5_ALGORITHM, nullptr, 0) != 0)
        return false;
    done = BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0) == 0 &&
           BCryptHashData(hash, reinterpret_cast<PUCHAR>(const_cast<char *>(text.data())),
                          static_cast<ULONG>(text.size()), 0) == 0 &&
           BCryptFinishHash(hash, digest, MD5_BYTES, 0) == 0;
    if (hash != nullptr)
        BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return done;
}

int oxni_dev_get_id_md5(char *buffer, size_t size)
{
    uint8_t digest[MD5_BYTES];

    if (buffer == nullptr || size == 0)
        return -1;
    buffer[0] = '\0';
    if (size < 2 * MD5_BYTES + 1 || !md5(device_id(), digest))
        return -1;
    for (size_t i = 0; i < MD5_BYTES; i++)
        snprintf(buffer + 2 * i, 3, "%02x", static_cast<unsigned>(digest[i]));
    return 0;
}

uint32_t oxni_dev_get_id_crc32(void)
{
    std::string id = device_id();

    return oxni_crc32_calc(id.data(), id.size());
}
