// The cipher and the encrypted-file format against Windows' own AES and MD5 (bcrypt), the round
// trip through kwdecrypt.exe, and the key mask in the shipped binaries.
#include "kwtest.h"

#include <bcrypt.h>

#include <clocale>
#include <locale>
#include <random>

#include "protect/block_cipher.h"
#include "protect/transform.h"

namespace {

using namespace kwtest;

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

// Windows' AES-ECB over whole blocks (a key of 16, 24 or 32 bytes) or, with no key, MD5 as hex,
// through bcrypt's algorithm pseudo-handles (their values from Windows' bcrypt.h; MinGW's lacks them).
std::string os_crypt(const std::string& key, const std::string& data) {
  const auto md5 = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x21), aes_ecb = reinterpret_cast<BCRYPT_ALG_HANDLE>(0x1B1);
  BCRYPT_HASH_HANDLE h = nullptr;
  BCRYPT_KEY_HANDLE k = nullptr;
  std::string out(key.empty() ? 16 : data.size(), '\0');
  ULONG n = 0, size = static_cast<ULONG>(data.size());
  auto* in = reinterpret_cast<PUCHAR>(const_cast<char*>(data.data()));
  auto* to = reinterpret_cast<PUCHAR>(&out[0]);
  NTSTATUS s = key.empty() ? BCryptCreateHash(md5, &h, nullptr, 0, nullptr, 0, 0)
                           : BCryptGenerateSymmetricKey(aes_ecb, &k, nullptr, 0, (PUCHAR)key.data(), (ULONG)key.size(), 0);
  if (s == 0 && h != nullptr && (s = BCryptHashData(h, in, size, 0)) == 0) s = BCryptFinishHash(h, to, 16, 0);
  if (s == 0 && k != nullptr && size != 0) s = BCryptEncrypt(k, in, size, nullptr, nullptr, 0, to, size, &n, 0);
  if (h != nullptr) BCryptDestroyHash(h);
  if (k != nullptr) BCryptDestroyKey(k);
  std::string hex;
  for (unsigned char c : out) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
  return s != 0 ? "bcrypt failed" : key.empty() ? hex : out;
}

std::string mask() {  // the test's own copy of the configured mask
  std::string out;
  for (size_t i = 0; i + 1 < sizeof KWTEST_KEY_MASK_HEX; i += 2)
    out += static_cast<char>(std::stoi(std::string(KWTEST_KEY_MASK_HEX).substr(i, 2), nullptr, 16));
  return out;
}

// The file TransformCopiedFile writes for `input`: magic, digest of the input and its NUL, then per
// 64 KiB chunk the whole blocks through AES under key material bytes 0..15 (mask OR the first 31
// password bytes) and the tail of r bytes XOR key material bytes r down to 1.
std::string expected_file(const std::string& input, const std::string& password) {
  std::string km = mask();
  for (size_t i = 0; i < 31 && i < password.size(); ++i) km[i] |= password[i];
  std::string out = std::string("\x01\x02\x03\x04\x10\x20\x30\x40", 8) + os_crypt("", input) + '\0';
  for (size_t at = 0; at < input.size(); at += 65536) {
    const std::string chunk = input.substr(at, 65536);
    const size_t whole = chunk.size() / 16 * 16;
    out += os_crypt(km.substr(0, 16), chunk.substr(0, whole));
    for (size_t j = whole; j < chunk.size(); ++j) out += static_cast<char>(chunk[j] ^ km[chunk.size() - j]);
  }
  return out;
}

// A facet of the host's own, which only its global C++ locale holds.
struct HostFacet : std::locale::facet { static std::locale::id id; };
std::locale::id HostFacet::id;

// Each row: the block cipher with a key of that size on every engine, and the file format of
// `size` random bytes under the password (in place: the source becomes its encrypted form). The
// host's C locale (German) and its global C++ locale (with a facet of its own) stay as they were.
TEST(EncryptedFormat, TableAgainstWindowsAesAndMd5) {
  struct HostLocales {
    std::string c_locale = setlocale(LC_ALL, "German") ? setlocale(LC_ALL, nullptr) : "setlocale failed";
    std::locale previous = std::locale::global(std::locale(std::locale::classic(), new HostFacet));
    ~HostLocales() { std::locale::global(previous), setlocale(LC_ALL, "C"); }
  } host;
  ASSERT_EQ("German_Germany.1252", host.c_locale);
  std::vector<BlockCipher::Engine> engines = {BlockCipher::Engine::portable};
  if (BlockCipher::aes_ni_available()) engines.push_back(BlockCipher::Engine::aes_ni);
  const struct {
    int key_bytes;
    std::string password;
    size_t size;
    bool round_trip, in_place;
  } rows[] = {
      {16, "s3cret-Pa55", 0, true, false},  // the header alone
      {24, "s3cret-Pa55", 15, false, false},
      {32, "s3cret-Pa55", 16, false, false},
      {16, "s3cret-Pa55", 55, false, false},  // the digest's padding boundary
      {24, "s3cret-Pa55", 56, false, false},
      {32, "s3cret-Pa55", 65536, false, false},
      {16, "s3cret-Pa55", 65537, false, false},
      {24, "s3cret-Pa55", 200003, true, false},
      {32, "0123456789abcdefghijABCDEFGHIJ_+extra!!", 1000, true, false},  // cut at 31
      {32, "pw", 70001, true, true},
  };
  ScratchDir dir;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.key_bytes << " " << row.password << " " << row.size);
    const std::string plain = random_bytes(row.size, static_cast<unsigned>(row.size));
    const std::string key = random_bytes(row.key_bytes, static_cast<unsigned>(row.size + row.key_bytes));
    const std::string padded = plain + std::string((16 - row.size % 16) % 16, '\0');
    for (BlockCipher::Engine engine : engines) {
      BlockCipher cipher(row.key_bytes / 8 - 2, reinterpret_cast<const uint8_t*>(key.data()), engine);
      std::string out(padded.size() + 1, '\xee'), back(padded.size() + 1, '\xee');
      size_t out_length = 0;
      cipher.encipher_buffer((const uint8_t*)plain.data(), plain.size(), (uint8_t*)&out[0], &out_length);
      EXPECT_TRUE(out_length == padded.size() && out == os_crypt(key, padded) + '\xee') << int(engine);
      cipher.decipher_buffer((const uint8_t*)out.data(), (uint8_t*)&back[0], padded.size());
      EXPECT_TRUE(back == padded + '\xee') << int(engine);
    }
    const std::wstring src = dir.file(L"\u0421\u0435\u043a\u0440\u0435\u0442 \u79d8\u5bc6.bin");
    const std::wstring dst = row.in_place ? src : dir.file(L"copy.enc"), pw = widen(row.password);
    ASSERT_TRUE(write_file(src, plain));
    bool complete = false;
    EXPECT_TRUE(TransformCopiedFile(narrow(src).c_str(), narrow(dst).c_str(), row.password.c_str(), &complete));
    EXPECT_TRUE(complete && content(dst) == expected_file(plain, row.password));
    EXPECT_FALSE(file_exists(dst + L".tmp"));
    if (!row.round_trip) continue;
    std::string said;
    EXPECT_EQ(0u, kwdecrypt(L"--verify \"" + dst + L"\" " + pw, &said));
    EXPECT_EQ("OK " + os_crypt("", plain), said.substr(0, 35));
    EXPECT_TRUE(decrypts_to(dst, row.password, plain));
    if (!plain.empty()) EXPECT_EQ(1u, kwdecrypt(L"--verify \"" + dst + L"\" !" + pw.substr(1)));  // '!': not in the mask
  }
  EXPECT_EQ(host.c_locale, setlocale(LC_ALL, nullptr));
  EXPECT_TRUE(std::has_facet<HostFacet>(std::locale()));
}

// An unreadable source leaves an empty output, never a ".tmp"; kwdecrypt gives 3 for what is not
// the format and 2 for its usage.
TEST(EncryptedFormat, UnreadableSourcesAndForeignFiles) {
  ScratchDir dir;
  const std::string missing = narrow(dir.file(L"missing.bin")), dst = narrow(dir.file(L"out.bin"));
  bool complete = true;
  EXPECT_FALSE(TransformCopiedFile(missing.c_str(), dst.c_str(), "pw", &complete) || complete);
  EXPECT_EQ("", content(dir.file(L"out.bin")));
  EXPECT_FALSE(TransformCopiedFile(missing.c_str(), missing.c_str(), "pw") || file_exists(dir.file(L"missing.bin.tmp")));
  EXPECT_FALSE(TransformCopiedFile(nullptr, dst.c_str(), "pw") || TransformCopiedFile(missing.c_str(), dst.c_str(), nullptr));
  ASSERT_TRUE(write_file(dir.file(L"nodigest"), std::string("\x01\x02\x03\x04\x10\x20\x30\x40", 8) + std::string(33, '\0')));
  ASSERT_TRUE(write_file(dir.file(L"junk"), std::string(100, 'j')));
  for (const wchar_t* name : {L"nodigest", L"junk", L"none"}) EXPECT_EQ(3u, kwdecrypt(L"--verify \"" + dir.file(name) + L"\" pw"));
  EXPECT_EQ(2u, kwdecrypt(L"only-one-argument"));
}

// The mask (whose value the table above proves) never stands as one sequence in the binaries; the
// routine's byte stores ("mov byte [rcx+1], mask[1]" ...; [eax+1] in 32-bit code, which loads the
// pointer from the stack) show that the file searched holds it.
TEST(KeyMask, NeverStandsTogetherInTheBinaries) {
  const std::string value = mask();
  const char base = sizeof(void*) == 8 ? '\x41' : '\x40';
  const std::string stores = std::string("\xc6") + base + '\x01' + value[1] + "\xc6" + base + '\x02' + value[2];
  for (const std::wstring& path : {exe_dir() + KWINDEL_DLL_NAME, tool_path(L"kwdecrypt")}) {
    const std::string image = content(path);
    EXPECT_EQ(std::string::npos, image.find(value.substr(0, 16))) << narrow(path);
    EXPECT_NE(std::string::npos, image.find(stores)) << narrow(path);
  }
}

}  // namespace
