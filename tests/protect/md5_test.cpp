// MD5: the RFC 1321 test suite, incremental feeding, file digests and the misuse messages.
#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <sstream>

#include "kwtest.h"
#include "protect/md5.h"
#include "protect/transform.h"
#include "reference_crypto.h"

namespace {

std::string md5_of(const std::string& s) {
  MD5 md5;
  md5.update(s.data(), s.size());
  md5.finalize();
  return md5.hex_digest();
}

TEST(MD5, Rfc1321Suite) {
  const std::pair<const char*, const char*> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"}};
  for (const auto& c : suite) {
    EXPECT_EQ(md5_of(c.first), c.second) << '"' << c.first << '"';
    std::istringstream stream(c.first);
    EXPECT_EQ(MD5(stream).hex_digest(), c.second);
  }
  MD5 md5;
  md5.update("abc", 3);
  md5.finalize();
  const auto raw = md5.raw_digest();
  EXPECT_EQ(raw[0], 0x90);
  EXPECT_EQ(raw[15], 0x72);
}

TEST(MD5, SplitFeedingMatchesReferenceAtPaddingBoundaries) {
  std::mt19937 rng(99);
  for (size_t size : {55u, 56u, 63u, 64u, 65u, 119u, 120u, 128u, 100000u}) {
    std::string data(size, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    MD5 md5;
    for (size_t off = 0; off < size;) {
      const size_t n = std::min<size_t>(size - off, 1 + rng() % 97);
      md5.update(data.data() + off, n);
      off += n;
    }
    md5.finalize();
    EXPECT_EQ(md5.hex_digest(), ref::md5_hex(data)) << size << " bytes";
  }
}

TEST(MD5, MisuseWritesOneLineToStandardError) {
  std::ostringstream captured;
  std::streambuf* old = std::cerr.rdbuf(captured.rdbuf());
  MD5 md5;
  const std::string early_hex = md5.hex_digest();
  const auto early_raw = md5.raw_digest();
  md5.update("abc", 3);
  md5.finalize();
  md5.finalize();
  md5.update("more", 4);
  const std::string after = md5.hex_digest();
  std::cerr.rdbuf(old);
  EXPECT_EQ(captured.str(),
            "MD5::hex_digest:  Can't get digest if you haven't finalized the digest!\n"
            "MD5::raw_digest:  Can't get digest if you haven't finalized the digest!\n"
            "MD5::finalize:  Already finalized this digest!\n"
            "MD5::update:  Can't update a finalized digest!\n");
  EXPECT_EQ(early_hex, "");
  EXPECT_EQ(early_raw, (std::array<uint8_t, 16>{}));
  EXPECT_EQ(after, "900150983cd24fb0d6963f7d28e17f72") << "misuse must not change the digest";
}

TEST(MD5, FileDigestHexReadsWideNamesAndSharedFiles) {
  kwtest::ScratchDir dir;
  const std::wstring path = dir.file(L"\u0434\u0430\u043d\u043d\u044b\u0435-\u6587\u4ef6.bin");
  std::string data(300000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  ASSERT_TRUE(kwtest::write_file(path, data));
  // Another opener that allows only reading and writing must not stop the digest.
  HANDLE other = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(other, INVALID_HANDLE_VALUE);
  EXPECT_EQ(FileDigestHex(path), ref::md5_hex(data));
  CloseHandle(other);
  EXPECT_EQ(FileDigestHex(dir.file(L"missing.bin")), "");
}

}  // namespace
