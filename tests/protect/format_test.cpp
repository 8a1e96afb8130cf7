// The encrypted-file format, byte for byte, against an independent computation, and the round
// trip through kwdecrypt.exe.
#include <gtest/gtest.h>

#include <locale>
#include <cstring>
#include <random>

#include "host/caller_context.h"
#include "kwtest.h"
#include "protect/transform.h"
#include "reference_crypto.h"

namespace {

std::vector<uint8_t> mask() { return ref::from_hex(KWTEST_KEY_MASK_HEX); }

std::vector<uint8_t> key_material(const std::string& password) {
  std::vector<uint8_t> km = mask();
  for (size_t i = 0; i < 31 && i < password.size(); ++i) km[i] |= static_cast<uint8_t>(password[i]);
  return km;
}

std::string expected_file(const std::string& plain, const std::string& password) {
  return ref::encrypted_file(plain, key_material(password).data());
}

std::string random_bytes(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

struct Decrypted {
  DWORD exit_code = 999;
  std::string output;
};

Decrypted kwdecrypt(const std::wstring& args) {
  const kwtest::ChildResult r = kwtest::run_child(kwtest::exe_dir() + L"kwdecrypt.exe", args, 120000);
  Decrypted d;
  if (r.started && r.finished) {
    d.exit_code = r.exit_code;
    d.output = r.output;
  }
  return d;
}

// Checks the encrypted file with kwdecrypt: --verify and a full decryption give the plaintext;
// a wrong password is refused.
void round_trip(const kwtest::ScratchDir& dir, const std::wstring& encrypted, const std::string& password,
                const std::string& plain) {
  const std::wstring pw = kwtest::widen(password);
  const Decrypted verify = kwdecrypt(L"--verify \"" + encrypted + L"\" " + pw);
  EXPECT_EQ(verify.exit_code, 0u) << verify.output;
  EXPECT_EQ(verify.output.substr(0, 35), "OK " + ref::md5_hex(plain));
  const std::wstring plain_out = dir.file(L"decrypted.bin");
  const Decrypted full = kwdecrypt(L"\"" + encrypted + L"\" " + pw + L" \"" + plain_out + L"\"");
  EXPECT_EQ(full.exit_code, 0u);
  std::string back;
  EXPECT_TRUE(kwtest::read_file(plain_out, &back));
  EXPECT_TRUE(back == plain) << "decrypted plaintext differs";
  DeleteFileW(plain_out.c_str());
  if (!plain.empty()) {  // an empty body decrypts to the same nothing under any password
    // Bits the mask already holds make some passwords equivalent: pick one whose AES key differs.
    std::string wrong_pw;
    for (char c : std::string("xQ~0#A")) {
      wrong_pw = password;
      wrong_pw[1] = c;  // byte 1 is in the AES key and in every tail
      if (key_material(wrong_pw) != key_material(password)) break;
    }
    const std::wstring wrong = kwtest::widen(wrong_pw);
    EXPECT_EQ(kwdecrypt(L"--verify \"" + encrypted + L"\" " + wrong).exit_code, 1u);
  }
}

struct Case {
  const char* name;
  size_t size;
};

TEST(EncryptedFormat, SizesAroundBlocksAndChunksMatchIndependentComputation) {
  // 0: header only; 15: tail only (key material bytes 15..1); 65536: one full chunk;
  // 65537: a one-byte last chunk (key material byte 1); 200003: several chunks and a tail.
  const Case cases[] = {{"empty", 0}, {"tail-only", 15}, {"one-block", 16}, {"one-chunk", 65536},
                        {"chunk-plus-one", 65537}, {"chunks-and-tail", 200003}};
  kwtest::ScratchDir dir;
  const std::string password = "s3cret-Pa55";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string plain = random_bytes(c.size, static_cast<unsigned>(c.size));
    const std::wstring src = dir.file(L"plain.bin"), dst = dir.file(L"copy.enc");
    ASSERT_TRUE(kwtest::write_file(src, plain));
    EXPECT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(dst).c_str(), password.c_str()));
    std::string got;
    ASSERT_TRUE(kwtest::read_file(dst, &got));
    ASSERT_EQ(got.size(), 41 + c.size);
    EXPECT_TRUE(got == expected_file(plain, password)) << "bytes differ from the independent computation";
    round_trip(dir, dst, password, plain);
  }
}

TEST(EncryptedFormat, EmptyAndTailOnlyLiterally) {
  kwtest::ScratchDir dir;
  const std::wstring src = dir.file(L"p"), dst = dir.file(L"c");
  ASSERT_TRUE(kwtest::write_file(src, ""));
  ASSERT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(dst).c_str(), "pw"));
  std::string got;
  ASSERT_TRUE(kwtest::read_file(dst, &got));
  EXPECT_EQ(got, std::string("\x01\x02\x03\x04\x10\x20\x30\x40" "d41d8cd98f00b204e9800998ecf8427e", 40) +
                     std::string(1, '\0'));

  const std::string plain = "fifteen bytes!!";
  ASSERT_TRUE(kwtest::write_file(src, plain));
  ASSERT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(dst).c_str(), "pw"));
  ASSERT_TRUE(kwtest::read_file(dst, &got));
  ASSERT_EQ(got.size(), 56u);
  const auto km = key_material("pw");
  for (size_t j = 0; j < 15; ++j)
    EXPECT_EQ(static_cast<uint8_t>(got[41 + j]), static_cast<uint8_t>(plain[j] ^ km[15 - j])) << "tail byte " << j;
}

TEST(EncryptedFormat, PasswordIsCutAt31Characters) {
  kwtest::ScratchDir dir;
  const std::string plain = random_bytes(1000, 5);
  const std::string long_pw = "0123456789abcdefghijABCDEFGHIJ_+extra!!";  // 40 characters
  const std::string cut = long_pw.substr(0, 31);
  const std::wstring src = dir.file(L"p"), a = dir.file(L"a"), b = dir.file(L"b");
  ASSERT_TRUE(kwtest::write_file(src, plain));
  ASSERT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(a).c_str(), long_pw.c_str()));
  ASSERT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(b).c_str(), cut.c_str()));
  std::string ga, gb;
  ASSERT_TRUE(kwtest::read_file(a, &ga));
  ASSERT_TRUE(kwtest::read_file(b, &gb));
  EXPECT_TRUE(ga == gb);
  EXPECT_TRUE(ga == expected_file(plain, cut));
  round_trip(dir, a, long_pw, plain);
}

TEST(EncryptedFormat, PasswordHoldingEveryMaskBitIsTheKeyMaterial) {
  const std::vector<uint8_t> m = mask();
  std::string password;
  for (size_t i = 0; i < 31; ++i) password.push_back(static_cast<char>(m[i] | 0x80));
  uint8_t buffer[32], km[32];
  BuildPasswordBuffer(password.c_str(), buffer);
  BuildKeyMaterial(buffer, km);
  EXPECT_EQ(0, std::memcmp(buffer, km, 32));
  EXPECT_EQ(km[31], 0);

  kwtest::ScratchDir dir;
  const std::string plain = random_bytes(77, 8);
  const std::wstring src = dir.file(L"p"), dst = dir.file(L"c");
  ASSERT_TRUE(kwtest::write_file(src, plain));
  ASSERT_TRUE(TransformCopiedFile(kwtest::narrow(src).c_str(), kwtest::narrow(dst).c_str(), password.c_str()));
  std::string got;
  ASSERT_TRUE(kwtest::read_file(dst, &got));
  EXPECT_TRUE(got == ref::encrypted_file(plain, buffer));  // the mask adds nothing
}

TEST(EncryptedFormat, InPlaceThroughTmpWithNonAsciiNamesAndCLocaleAfterwards) {
  kwtest::ScratchDir dir;
  const std::wstring path = dir.file(L"\u0421\u0435\u043a\u0440\u0435\u0442 \u79d8\u5bc6 \u00e9t\u00e9.docx");
  const std::string plain = random_bytes(70001, 3);
  ASSERT_TRUE(kwtest::write_file(path, plain));
  const std::string utf8 = kwtest::narrow(path);
  EXPECT_TRUE(TransformCopiedFile(utf8.c_str(), utf8.c_str(), "pw"));
  std::string got;
  ASSERT_TRUE(kwtest::read_file(path, &got));
  EXPECT_TRUE(got == expected_file(plain, "pw"));
  EXPECT_FALSE(kwtest::file_exists(path + L".tmp"));
  EXPECT_EQ(std::locale().name(), "C");
  round_trip(dir, path, "pw", plain);
}

TEST(EncryptedFormat, UnreadableSourceLeavesAnEmptyOutput) {
  kwtest::ScratchDir dir;
  const std::wstring missing = dir.file(L"missing.bin"), dst = dir.file(L"out.bin");
  EXPECT_FALSE(TransformCopiedFile(kwtest::narrow(missing).c_str(), kwtest::narrow(dst).c_str(), "pw"));
  std::string got = "x";
  ASSERT_TRUE(kwtest::read_file(dst, &got));
  EXPECT_EQ(got, "");
  EXPECT_EQ(std::locale().name(), "C");
  // In place: the source name ends up holding that empty output.
  EXPECT_FALSE(TransformCopiedFile(kwtest::narrow(missing).c_str(), kwtest::narrow(missing).c_str(), "pw"));
  ASSERT_TRUE(kwtest::read_file(missing, &got));
  EXPECT_EQ(got, "");
  EXPECT_FALSE(kwtest::file_exists(missing + L".tmp"));

  const std::wstring untouched = dir.file(L"untouched.bin");
  EXPECT_FALSE(TransformCopiedFile(nullptr, kwtest::narrow(untouched).c_str(), "pw"));
  EXPECT_FALSE(TransformCopiedFile(kwtest::narrow(missing).c_str(), nullptr, "pw"));
  EXPECT_FALSE(TransformCopiedFile(kwtest::narrow(missing).c_str(), kwtest::narrow(untouched).c_str(), nullptr));
  EXPECT_FALSE(kwtest::file_exists(untouched));
}

TEST(EncryptedFormat, DecipherDirectionWritesAFreshHeaderOverDecipheredBlocks) {
  kwtest::ScratchDir dir;
  const std::string plain = random_bytes(35, 11);  // two blocks and a 3-byte tail
  const auto km = key_material("pw");
  const ref::Aes aes(km.data(), 16);
  std::string body;
  for (size_t b = 0; b < 32; b += 16) {
    uint8_t block[16];
    aes.encrypt(reinterpret_cast<const uint8_t*>(plain.data() + b), block);
    body.append(reinterpret_cast<const char*>(block), 16);
  }
  body += plain.substr(32);
  const std::wstring src = dir.file(L"blocks"), dst = dir.file(L"out");
  ASSERT_TRUE(kwtest::write_file(src, body));
  uint8_t buffer[32];
  BuildPasswordBuffer("pw", buffer);
  ASSERT_TRUE(TransformFile(kwtest::narrow(src).c_str(), kwtest::narrow(dst).c_str(), buffer, false));
  std::string got;
  ASSERT_TRUE(kwtest::read_file(dst, &got));
  ASSERT_EQ(got.size(), 41u + 35u);
  EXPECT_EQ(got.substr(8, 32), ref::md5_hex(body));
  EXPECT_TRUE(got.substr(41, 32) == plain.substr(0, 32));
  for (size_t j = 0; j < 3; ++j)
    EXPECT_EQ(static_cast<uint8_t>(got[41 + 32 + j]), static_cast<uint8_t>(plain[32 + j] ^ km[3 - j]));
}

TEST(Kwdecrypt, RejectsWhatIsNotTheFormat) {
  kwtest::ScratchDir dir;
  const std::wstring junk = dir.file(L"junk.bin");
  ASSERT_TRUE(kwtest::write_file(junk, std::string(100, 'j')));
  EXPECT_EQ(kwdecrypt(L"--verify \"" + junk + L"\" pw").exit_code, 3u);
  EXPECT_EQ(kwdecrypt(L"--verify \"" + dir.file(L"none") + L"\" pw").exit_code, 3u);
  EXPECT_EQ(kwdecrypt(L"").exit_code, 2u);
  EXPECT_EQ(kwdecrypt(L"only-one-argument").exit_code, 2u);
  // A file whose source was unreadable records no digest and cannot be proven.
  ASSERT_TRUE(kwtest::write_file(junk, std::string("\x01\x02\x03\x04\x10\x20\x30\x40", 8) + std::string(33, '\0')));
  EXPECT_EQ(kwdecrypt(L"--verify \"" + junk + L"\" pw").exit_code, 3u);
}

}  // namespace
