// Calls with fixed results, the encryption forwarders, the slot id and the version.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>

#include "support/fake_key_management.h"
#include "support/recording_platform.h"

namespace {

using AnyCall = uint64_t (*)(...);

// The calls that do nothing but answer are told by their names; the list of exports has them all.
TEST(FixedResults, AreTheSameWhateverTheArguments) {
  const std::regex fixed(
      "(HAF|LOC|SISP|TRC|SSP_OverLoad|ZOT_(Pipe|Msg|SEND|ZotMsg|Dll|CompLocal)|KEM_(Pipe|SetPipe))"
      ".*");
  const std::map<std::string, uint64_t> notZero{{"ZOT_ZotMsgHeaderLenCheck", 1},
                                                {"TRC_IsTraceCompMsg", 2}};
  std::ifstream list(EXPORTS);
  size_t called = 0;
  for (std::string name; std::getline(list, name);) {
    if (!std::regex_match(name, fixed)) {
      continue;
    }
    auto* const call = reinterpret_cast<AnyCall>(dlsym(RTLD_DEFAULT, name.c_str()));
    ASSERT_NE(call, nullptr) << name;
    const auto expected = notZero.find(name);
    for (const int argument : {0, -1}) {
      const uint64_t result = call(argument, argument, argument, argument, argument, argument);
      if (name == "ZOT_MsgAlloc" || name == "ZOT_MsgFlowCtrlAlloc_F" ||
          name == "ZOT_CompLocalCreate") {
        EXPECT_EQ(result, 0U) << name;  // a whole pointer
      } else if (name != "HAF_SetCommonHeader") {
        EXPECT_EQ(static_cast<uint32_t>(result), expected == notZero.end() ? 0 : expected->second)
            << name;
      }
    }
    ++called;
  }
  EXPECT_EQ(called, 44U);
  EXPECT_EQ(recorded::texts(), std::vector<std::string>{});
}

TEST(Encryption, HandsOnEveryArgumentThoseOnTheStackIncluded) {
  Key key{};
  key.bytes[0] = 'k';
  key.bytes[39] = '!';
  auto* const encrypt = reinterpret_cast<EncryptCall>(KEM_CRYPT_Encrypt_Sec);
  EXPECT_EQ(encrypt(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0.5, -2.0, key), 0xC0DE0001U);
  EXPECT_EQ(encrypt(1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 0.5, -2.0, key), 0U);
  uint64_t out = 0;
  EXPECT_EQ(reinterpret_cast<DecryptCall>(KEM_CRYPT_Decrypt_Sec)(&out), 0xC0DE0002U);
  EXPECT_EQ(out, 77U);
}

TEST(Process, LogsItsSlotIdEachTimeAndKnowsItsVersion) {
  TOV_SetProcessSlotId(5);
  TOV_SetProcessSlotId(4294967295);
  EXPECT_EQ(recorded::texts(40),
            (std::vector<std::string>{"tOV process slot id (5) set success.",
                                      "tOV process slot id (4294967295) set success."}));
  EXPECT_STREQ(g_pcMorlaadaptMiniVer, "2.2.0");
  EXPECT_STREQ(g_pcMorlaadaptInterSubVer, "B137");
  EXPECT_EQ(std::string(g_pcMorlaadaptOuterVer).find("TOV "), 0U);
}

}  // namespace
