#include "tarnwell/platform/Color.h"

#include <gtest/gtest.h>

namespace tarnwell {
namespace {

const Color kUnreadable{255, 255, 255, 0};

TEST(ColorTest, ReadsThreeSixAndEightDigits) {
  EXPECT_EQ(Color::fromHex("#abc"), (Color{0xaa, 0xbb, 0xcc, 255}));
  EXPECT_EQ(Color::fromHex("63C7bA"), (Color{0x63, 0xc7, 0xba, 255}));
  EXPECT_EQ(Color::fromHex("#11223344"), (Color{0x11, 0x22, 0x33, 0x44}));
  EXPECT_EQ(Color::fromHex("000"), (Color{0, 0, 0, 255}));
}

TEST(ColorTest, AnythingElseIsTransparentWhite) {
  for (const char* text :
       {"", "#", "#ab", "12345", "#1234567", "#123456789", "#ggg", "##abc", " #abc", "#abc ", "0x1234"}) {
    EXPECT_EQ(Color::fromHex(text), kUnreadable) << '"' << text << '"';
  }
}

TEST(ColorTest, WritesLowerCaseWithAlphaOnRequest) {
  const Color color{0x0a, 0xff, 0x3c, 0x80};
  EXPECT_EQ(color.hex(), "#0aff3c");
  EXPECT_EQ(color.hex(true), "#0aff3c80");
  EXPECT_EQ(Color::fromHex(color.hex(true)), color);
  EXPECT_EQ(Color::fromHex(color.hex()), (Color{0x0a, 0xff, 0x3c, 255}));
}

}  // namespace
}  // namespace tarnwell
