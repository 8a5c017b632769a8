// The description reader: syntax, section walking, typed look-ups and their default lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "orva/config.h"
#include "temp_dir.h"

namespace {

class ConfigFile : public ::testing::Test {
 protected:
  std::string path;
  void SetUp() override {
    path = orva_test::temp_path("description.cfg");
  }
  int load(const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    return cfg.load(path.c_str());
  }
  std::string value(int sect, const char* key) {
    const char* v = cfg.findValue(sect, key);
    return v ? v : "<absent>";
  }
  ConfigReader cfg;
};

const char* kDescription =
    "[net]\n"
    "width = 416 # input width\n"
    "name=a#b\n"
    "empty= #x\n"
    "hash=#x\n"
    "learning rate: 0.001\n"
    "; a comment\n"
    "   # an indented comment\n"
    "\n"
    "[convolution] # first\n"
    "filters=256\n"
    "   512\n"
    "size=3\n"
    "  [convolution]\n"
    "[ net ]\n"
    "[convolution]\n"
    "filters=12abc\n"
    "bad=abc\n";

TEST_F(ConfigFile, ReadsKeysValuesCommentsAndContinuations) {
  ASSERT_EQ(load(std::string("\xEF\xBB\xBF") + kDescription), 0);  // a byte-order mark is skipped
  ASSERT_EQ(cfg.getSectionSize(), 4);
  EXPECT_STREQ(cfg.getSectionName(0), "net");
  EXPECT_STREQ(cfg.getSectionName(2), " net ");
  EXPECT_EQ(value(0, "width"), "416");
  EXPECT_EQ(value(0, "name"), "a#b");
  EXPECT_EQ(value(0, "empty"), "<absent>");  // stored empty, reads as absent
  EXPECT_EQ(value(0, "hash"), "#x");         // the first value character never starts a comment
  EXPECT_EQ(value(0, "learning rate"), "0.001");
  // continuation lines replace the previous key's value; an indented header is a value too
  EXPECT_EQ(value(1, "filters"), "512");
  EXPECT_EQ(value(1, "size"), "[convolution]");
  EXPECT_EQ(cfg.findInt(2, "filters", 0, true), 0);
  EXPECT_EQ(cfg.findInt(3, "filters", 7), 12);
  EXPECT_EQ(cfg.findInt(3, "bad", 7), 0);
}

TEST_F(ConfigFile, FindSectionWalksNamesExactly) {
  ASSERT_EQ(load(kDescription), 0);
  EXPECT_EQ(cfg.findSection("net", 0), 0);
  EXPECT_EQ(cfg.findSection("net", 1), -1);  // " net " is another name
  EXPECT_EQ(cfg.findSection("convolution", 0), 1);
  EXPECT_EQ(cfg.findSection("convolution", 2), 3);
  EXPECT_EQ(cfg.findSection("convolution", 4), -1);
  EXPECT_EQ(cfg.findSection("convolution", -1), -1);  // compared as an unsigned index
  EXPECT_EQ(cfg.findValue(4, "width"), nullptr);
}

TEST_F(ConfigFile, MalformedLinesStopWithTheirNumber) {
  EXPECT_EQ(load("[net]\nwidth=1\nabc\nheight=2\n"), 3);
  EXPECT_EQ(cfg.getSectionSize(), 1);  // what came before stays
  EXPECT_EQ(value(0, "width"), "1");
  EXPECT_EQ(value(0, "height"), "<absent>");
  EXPECT_EQ(load("[net # comment\n"), 1);
  EXPECT_EQ(load("[net]\n\n[net\n"), 3);
  EXPECT_EQ(load("[net]\nkey #x = 1\n"), 2);  // a comment before the delimiter
  EXPECT_EQ(load("[net] # comment\nw=1\n"), 0);
}

TEST_F(ConfigFile, HostileFilesReturnCodesWithoutCrashing) {
  EXPECT_EQ(cfg.load((path + ".missing").c_str()), -1);
  EXPECT_EQ(load(""), 0);
  EXPECT_EQ(cfg.getSectionSize(), 0);
  // a line longer than the read buffer arrives as several reads
  EXPECT_EQ(load("[net]\nk=" + std::string(10000, 'x') + "\n"), 3);
  // a previous load's sections are gone after the next one
  ASSERT_EQ(load("[a]\n[b]\n"), 0);
  ASSERT_EQ(load("[c]\n"), 0);
  EXPECT_EQ(cfg.getSectionSize(), 1);
  EXPECT_EQ(cfg.load((path + ".missing").c_str()), -1);
  EXPECT_EQ(cfg.getSectionSize(), 1);  // a failed open changes nothing
}

TEST(ConfigReaderValues, GlobalSectionAndSetValue) {
  ConfigReader cfg;
  cfg.setValue("size", "1");
  cfg.setValue("filters", "64");
  EXPECT_EQ(cfg.findInt(-1, "size", 0, true), 1);
  EXPECT_EQ(cfg.findInt(-5, "filters", 0, true), 64);
  cfg.setValue(1, "filters", "8");  // no sections: ignored
  EXPECT_EQ(cfg.getSectionSize(), 0);
  EXPECT_EQ(cfg.findFloat(-1, "scale", 0.5f, true), 0.5f);
  EXPECT_STREQ(cfg.findStr(-1, "filters", "x", true), "64");
}

TEST(ConfigReaderValues, DefaultLinesNameKeyAndDefault) {
  ConfigReader cfg;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(cfg.findInt(-1, "batch", 4), 4);
  EXPECT_FLOAT_EQ(cfg.findFloat(-1, "momentum", 0.9f), 0.9f);
  EXPECT_STREQ(cfg.findStr(-1, "policy", "constant"), "constant");
  EXPECT_EQ(cfg.findInt(-1, "quiet", 1, true), 1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "[ConfigReader] 'batch' using default '4'\n"
            "[ConfigReader] 'momentum' using default '0.900000'\n"
            "[ConfigReader] 'policy' using default 'constant'\n");
}

TEST(ConfigReaderValues, MinMaxNeedsExactlyTwoPieces) {
  ConfigReader cfg;
  cfg.setValue("jitter", " 3, ,7 ");
  cfg.setValue("three", "1 2 3");
  cfg.setValue("scale", "0.5,1.5");
  int lo = -1, hi = -1;
  get_minmax(cfg, -1, "jitter", lo, hi);
  EXPECT_EQ(lo, 3);
  EXPECT_EQ(hi, 7);
  lo = hi = -1;
  get_minmax(cfg, -1, "three", lo, hi);
  get_minmax(cfg, -1, "absent", lo, hi);
  EXPECT_EQ(lo, -1);
  EXPECT_EQ(hi, -1);
  float flo = 0, fhi = 0;
  get_minmax(cfg, -1, "scale", flo, fhi);
  EXPECT_FLOAT_EQ(flo, 0.5f);
  EXPECT_FLOAT_EQ(fhi, 1.5f);
}

}  // namespace
