// The cipher, the digest and the encrypted-file format against Windows' own AES and MD5
// (bcrypt), the round trip through kwdecrypt.exe, and the key mask in the shipped binaries.
#include <windows.h>
#include <bcrypt.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <locale>
#include <random>
#include <sstream>

#include "kwtest.h"
#include "protect/block_cipher.h"
#include "protect/key_mask.h"
#include "protect/md5.h"
#include "protect/transform.h"

namespace {

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

// Windows' own AES-ECB over whole blocks (key of 16, 24 or 32 bytes) and MD5, through bcrypt.
std::string os_crypt(const wchar_t* algorithm, const std::string& key, const std::string& data, bool encrypt = true) {
  BCRYPT_ALG_HANDLE alg = nullptr;
  BCRYPT_KEY_HANDLE k = nullptr;
  BCRYPT_HASH_HANDLE h = nullptr;
  std::string out(key.empty() ? 16 : data.size(), '\0');
  ULONG n = 0, size = static_cast<ULONG>(data.size());
  auto* in = reinterpret_cast<PUCHAR>(const_cast<char*>(data.data()));
  auto* to = reinterpret_cast<PUCHAR>(&out[0]);
  NTSTATUS s = BCryptOpenAlgorithmProvider(&alg, algorithm, nullptr, 0);
  if (s == 0 && key.empty()) {  // a digest
    if ((s = BCryptCreateHash(alg, &h, nullptr, 0, nullptr, 0, 0)) == 0 && (s = BCryptHashData(h, in, size, 0)) == 0)
      s = BCryptFinishHash(h, to, 16, 0);
  } else if (s == 0 && (s = BCryptSetProperty(alg, BCRYPT_CHAINING_MODE, (PUCHAR)BCRYPT_CHAIN_MODE_ECB,
                                              sizeof(BCRYPT_CHAIN_MODE_ECB), 0)) == 0 &&
             (s = BCryptGenerateSymmetricKey(alg, &k, nullptr, 0, (PUCHAR)key.data(), (ULONG)key.size(), 0)) == 0 && size) {
    s = encrypt ? BCryptEncrypt(k, in, size, nullptr, nullptr, 0, to, size, &n, 0)
                : BCryptDecrypt(k, in, size, nullptr, nullptr, 0, to, size, &n, 0);
  }
  if (h != nullptr) BCryptDestroyHash(h);
  if (k != nullptr) BCryptDestroyKey(k);
  if (alg != nullptr) BCryptCloseAlgorithmProvider(alg, 0);
  return s == 0 ? out : "bcrypt failed";
}
std::string os_aes(const std::string& key, const std::string& data, bool encrypt) {
  return os_crypt(BCRYPT_AES_ALGORITHM, key, data, encrypt);
}
std::string os_md5_hex(const std::string& data) {
  std::string hex;
  char b[3];
  for (unsigned char c : os_crypt(BCRYPT_MD5_ALGORITHM, "", data)) std::snprintf(b, 3, "%02x", c), hex += b;
  return hex;
}

std::string from_hex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

std::string mask() { return from_hex(KWTEST_KEY_MASK_HEX); }

// Key material: the mask OR the first 31 password bytes.
std::string key_material(const std::string& password) {
  std::string km = mask();
  for (size_t i = 0; i < 31 && i < password.size(); ++i) km[i] |= password[i];
  return km;
}

// The file TransformFile writes for `input`: magic, digest of the input, then per 64 KiB chunk
// the whole blocks through AES and the tail of r bytes XOR key material bytes r down to 1.
std::string expected_file(const std::string& input, const std::string& password, bool encrypt = true) {
  const std::string km = key_material(password);
  std::string out = std::string("\x01\x02\x03\x04\x10\x20\x30\x40", 8) + os_md5_hex(input) + '\0';
  for (size_t at = 0; at < input.size(); at += 65536) {
    const std::string chunk = input.substr(at, 65536);
    const size_t whole = chunk.size() / 16 * 16;
    out += os_aes(km.substr(0, 16), chunk.substr(0, whole), encrypt);
    for (size_t j = whole; j < chunk.size(); ++j) out += static_cast<char>(chunk[j] ^ km[chunk.size() - j]);
  }
  return out;
}

DWORD kwdecrypt(const std::wstring& args, std::string* output = nullptr) {
  const kwtest::ChildResult r = kwtest::run_child(kwtest::exe_dir() + L"kwdecrypt.exe", args, 120000);
  if (output != nullptr) *output = r.output;
  return r.started && r.finished ? r.exit_code : 999;
}

TEST(EncryptedFormat, TableAgainstWindowsAesAndMd5) {
  std::string all_mask_bits;  // a password that adds nothing to the mask
  for (char c : mask().substr(0, 31)) all_mask_bits += static_cast<char>(c | 0x80);
  const std::string long_pw = "0123456789abcdefghijABCDEFGHIJ_+extra!!";  // 40 characters, cut at 31
  const struct {
    const char* name;
    size_t size;
    std::string password;
    bool encrypt, in_place, round_trip;
  } rows[] = {
      {"header only", 0, "s3cret-Pa55", true, false, true},
      {"tail only", 15, "s3cret-Pa55", true, false, false},
      {"one block", 16, "s3cret-Pa55", true, false, false},
      {"one chunk", 65536, "s3cret-Pa55", true, false, false},
      {"one-byte last chunk", 65537, "s3cret-Pa55", true, false, false},
      {"chunks and tail", 200003, "s3cret-Pa55", true, false, true},
      {"password cut at 31", 1000, long_pw, true, false, true},
      {"password holding every mask bit", 77, all_mask_bits, true, false, false},
      {"in place, non-ASCII name", 70001, "pw", true, true, true},
      {"decipher direction", 35, "pw", false, false, false},
  };
  kwtest::ScratchDir dir;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string plain = random_bytes(row.size, static_cast<unsigned>(row.size));
    const std::wstring src = dir.file(L"\u0421\u0435\u043a\u0440\u0435\u0442 \u79d8\u5bc6.bin");
    const std::wstring dst = row.in_place ? src : dir.file(L"copy.enc");
    ASSERT_TRUE(kwtest::write_file(src, plain));
    bool complete = false;
    uint8_t buffer[32];
    build_password_buffer(row.password.c_str(), buffer);
    const std::string s = kwtest::narrow(src), d = kwtest::narrow(dst);
    EXPECT_TRUE(row.encrypt ? TransformCopiedFile(s.c_str(), d.c_str(), row.password.c_str(), &complete)
                            : TransformFile(s.c_str(), d.c_str(), buffer, false, &complete));
    EXPECT_TRUE(complete);
    std::string got;
    ASSERT_TRUE(kwtest::read_file(dst, &got));
    EXPECT_TRUE(got == expected_file(plain, row.password, row.encrypt)) << "bytes differ, size " << got.size();
    EXPECT_FALSE(kwtest::file_exists(dst + L".tmp"));
    if (!row.round_trip) continue;
    const std::wstring pw = kwtest::widen(row.password), out = dir.file(L"decrypted.bin");
    std::string said, back;
    EXPECT_EQ(0u, kwdecrypt(L"--verify \"" + dst + L"\" " + pw, &said));
    EXPECT_EQ("OK " + os_md5_hex(plain), said.substr(0, 35));
    EXPECT_EQ(0u, kwdecrypt(L"\"" + dst + L"\" " + pw + L" \"" + out + L"\""));
    EXPECT_TRUE(kwtest::read_file(out, &back) && back == plain) << "decrypted plaintext differs";
    // '!' first: a byte the mask does not already hold, so the AES key differs.
    ASSERT_NE(key_material(row.password), key_material("!" + row.password.substr(1)));
    if (!plain.empty()) EXPECT_EQ(1u, kwdecrypt(L"--verify \"" + dst + L"\" !" + pw.substr(1)));
  }
  EXPECT_EQ("C", std::locale().name());
}

TEST(EncryptedFormat, UnreadableSourceLeavesAnEmptyOutputAndKwdecryptRefusesIt) {
  kwtest::ScratchDir dir;
  const std::string missing = kwtest::narrow(dir.file(L"missing.bin")), dst = kwtest::narrow(dir.file(L"out.bin"));
  bool complete = true;
  EXPECT_FALSE(TransformCopiedFile(missing.c_str(), dst.c_str(), "pw", &complete));
  EXPECT_FALSE(complete);
  std::string got = "x";
  EXPECT_TRUE(kwtest::read_file(dir.file(L"out.bin"), &got) && got.empty());
  EXPECT_FALSE(TransformCopiedFile(missing.c_str(), missing.c_str(), "pw"));  // in place: the name holds nothing
  EXPECT_TRUE(kwtest::read_file(dir.file(L"missing.bin"), &got) && got.empty());
  EXPECT_FALSE(kwtest::file_exists(dir.file(L"missing.bin.tmp")));
  const std::string untouched = kwtest::narrow(dir.file(L"untouched"));
  EXPECT_FALSE(TransformCopiedFile(nullptr, untouched.c_str(), "pw"));
  EXPECT_FALSE(TransformCopiedFile(missing.c_str(), untouched.c_str(), nullptr));
  EXPECT_FALSE(kwtest::file_exists(dir.file(L"untouched")));
  EXPECT_EQ("C", std::locale().name());
  // kwdecrypt: 2 for usage, 3 for what is not the format (no digest recorded, junk, no file).
  ASSERT_TRUE(kwtest::write_file(dir.file(L"nodigest"), std::string("\x01\x02\x03\x04\x10\x20\x30\x40", 8) +
                                                            std::string(33, '\0')));
  ASSERT_TRUE(kwtest::write_file(dir.file(L"junk"), std::string(100, 'j')));
  for (const wchar_t* name : {L"nodigest", L"junk", L"none"})
    EXPECT_EQ(3u, kwdecrypt(L"--verify \"" + dir.file(name) + L"\" pw")) << kwtest::narrow(name);
  EXPECT_EQ(2u, kwdecrypt(L"only-one-argument"));
}

TEST(BlockCipher, EveryKeySizeAndEngineAgreesWithWindows) {
  std::vector<BlockCipher::Engine> engines = {BlockCipher::Engine::portable};
  if (BlockCipher::aes_ni_available()) engines.push_back(BlockCipher::Engine::aes_ni);
  const std::string data = random_bytes(16 * 100 + 8, 1);  // a partial last block, zero-padded
  for (const auto& [code, key_bytes] : {std::pair{0, 16}, {1, 24}, {2, 32}, {7, 32}}) {
    const std::string key = random_bytes(key_bytes, code);
    const std::string padded = data + std::string(8, '\0');
    for (BlockCipher::Engine engine : engines) {
      SCOPED_TRACE(testing::Message() << "code " << code << " engine " << int(engine));
      BlockCipher cipher(code, reinterpret_cast<const uint8_t*>(key.data()), engine);
      std::string out(padded.size() + 1, '\xee'), back(padded.size() + 1, '\xee');
      size_t out_length = 0;
      cipher.encipher_buffer(reinterpret_cast<const uint8_t*>(data.data()), data.size(), (uint8_t*)&out[0], &out_length);
      EXPECT_EQ(padded.size(), out_length);
      EXPECT_TRUE(out == os_aes(key, padded, true) + '\xee');
      // Deciphering a partial length takes the input zero-padded as well.
      cipher.decipher_buffer((const uint8_t*)out.data(), (uint8_t*)&back[0], data.size());
      EXPECT_TRUE(back == os_aes(key, out.substr(0, data.size()) + std::string(8, '\0'), false) + '\xee');
      EXPECT_EQ(data.substr(0, 1600), back.substr(0, 1600));
    }
  }
}

TEST(MD5, SplitFeedingStreamsAndFilesAgreeWithWindows) {
  std::mt19937 rng(99);
  for (size_t size : {0u, 3u, 55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 100000u}) {
    const std::string data = random_bytes(size, static_cast<unsigned>(size));
    MD5 md5;
    for (size_t off = 0; off < size;) {
      const size_t n = std::min<size_t>(size - off, 1 + rng() % 97);
      md5.update(data.data() + off, n);
      off += n;
    }
    md5.finalize();
    EXPECT_EQ(os_md5_hex(data), md5.hex_digest()) << size;
    std::istringstream stream(data);
    EXPECT_EQ(os_md5_hex(data), MD5(stream).hex_digest()) << size;
    const auto raw = md5.raw_digest();
    EXPECT_EQ(from_hex(md5.hex_digest()), std::string(raw.begin(), raw.end()));
  }
  // The file digest reads wide names, also while another opener allows only reading and writing.
  kwtest::ScratchDir dir;
  const std::wstring path = dir.file(L"\u0434\u0430\u043d\u043d\u044b\u0435-\u6587\u4ef6.bin");
  const std::string data = random_bytes(300000, 7);
  ASSERT_TRUE(kwtest::write_file(path, data));
  HANDLE other = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             nullptr, OPEN_EXISTING, 0, nullptr);
  EXPECT_EQ(os_md5_hex(data), FileDigestHex(path));
  CloseHandle(other);
  EXPECT_EQ("", FileDigestHex(dir.file(L"missing.bin")));
}

TEST(KeyMask, IsTheConfiguredValueAndNeverStandsTogetherInTheBinaries) {
  uint8_t m[32];
  KeyMask(m);
  const std::string value = mask();
  EXPECT_EQ(value, std::string(reinterpret_cast<char*>(m), 32));
  // The routine's byte stores ("mov byte [rcx+1], mask[1]" ...) show that the file searched
  // holds it, so the absence of the sequence means something.
  const std::string stores = std::string("\xc6\x41\x01", 3) + value[1] + std::string("\xc6\x41\x02", 3) + value[2];
  for (const wchar_t* name : {L"kwindel-x64.dll", L"kwdecrypt.exe"}) {
    std::string image;
    ASSERT_TRUE(kwtest::read_file(kwtest::exe_dir() + name, &image));
    EXPECT_EQ(std::string::npos, image.find(value.substr(0, 16))) << kwtest::narrow(name);
    EXPECT_NE(std::string::npos, image.find(stores)) << kwtest::narrow(name);
  }
}

}  // namespace
