// The key mask: built from the configured value, and never stored whole in a shipped binary.
#include <gtest/gtest.h>

#include <algorithm>

#include "kwtest.h"
#include "protect/key_mask.h"
#include "reference_crypto.h"

namespace {

bool contains(const std::string& hay, const std::vector<uint8_t>& needle) {
  return std::search(hay.begin(), hay.end(), needle.begin(), needle.end(),
                     [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; }) != hay.end();
}

TEST(KeyMask, IsTheConfiguredValue) {
  uint8_t m[32];
  KeyMask(m);
  EXPECT_EQ(std::vector<uint8_t>(m, m + 32), ref::from_hex(KWTEST_KEY_MASK_HEX));
  EXPECT_EQ(m[31], 0);
}

TEST(KeyMask, NeverStandsTogetherInTheBinaries) {
  const std::vector<uint8_t> mask = ref::from_hex(KWTEST_KEY_MASK_HEX);
  const std::vector<uint8_t> aes_key(mask.begin(), mask.begin() + 16);
  // The routine's byte stores ("mov byte [rcx+1], mask[1]" ...) show that it is in the file
  // searched, so the absence of the sequence means something.
  const std::vector<uint8_t> stores = {0xc6, 0x41, 0x01, mask[1], 0xc6, 0x41, 0x02, mask[2]};
  for (const wchar_t* name : {L"kwindel-x64.dll", L"kwdecrypt.exe"}) {
    std::string image;
    ASSERT_TRUE(kwtest::read_file(kwtest::exe_dir() + name, &image)) << kwtest::narrow(name);
    EXPECT_FALSE(contains(image, mask)) << kwtest::narrow(name);
    EXPECT_FALSE(contains(image, aes_key)) << kwtest::narrow(name);
    EXPECT_TRUE(contains(image, stores)) << kwtest::narrow(name) << " does not hold the mask routine";
  }
}

}  // namespace
