// Error codes, their messages and the exception.
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/testing/failing_allocations.h>

namespace {

const std::string unknown_text = "알 수 없는 오류가 발생하였습니다.";

std::string message_of(uint32_t code, uint64_t size = 512) {
    std::string buffer(size + 1, '\x7F');
    const uint64_t length = VELLib::GetErrorMsg(code, buffer.data(), size);
    EXPECT_EQ(buffer[size], '\x7F') << "wrote behind the buffer";
    EXPECT_LT(length, size);
    EXPECT_EQ(buffer[length], '\0');
    return buffer.c_str();
}

TEST(ErrorCode, IsPerThreadAndNeverReadsZero) {
    VELLib::SetErrorCode(87);
    std::thread([] {
        EXPECT_EQ(VELLib::GetErrorCode(), 0x20000001u);
        VELLib::SetErrorCode(8);
        EXPECT_EQ(VELLib::GetErrorCode(), 8u);
    }).join();
    EXPECT_EQ(VELLib::GetErrorCode(), 87u);
    VELLib::SetErrorCode(0);
    EXPECT_EQ(VELLib::GetErrorCode(), 0x20000001u);
}

TEST(ErrorMessage, LibraryCodesHaveTheirTextsAndOthersTheFallback) {
    EXPECT_EQ(message_of(0x20000001), unknown_text);
    EXPECT_EQ(message_of(0x20000006), "MD5 데이터의 크기가 올바르지 않습니다");
    EXPECT_EQ(message_of(0x20000012), "상대방으로부터 현재 연결이 종료 되었습니다.");
    EXPECT_EQ(message_of(0x20000027), "작업이 너무 많아 해당 요청을 수용 할 수 없습니다.");
    EXPECT_NE(message_of(0x20000018).find("합니다.  먼저"), std::string::npos) << "the double blank stays";
    EXPECT_EQ(message_of(0x20000023, 10), "데이터");
    EXPECT_EQ(message_of(0x20000023, 9), "데이") << "cut at a character";
    for (uint32_t code : {0x20000000u, 0x20000028u, 0x3FFFFFFFu, 0xFFFFFFFFu, 424242u, 0x40000000u + 99999u})
        EXPECT_EQ(message_of(code), unknown_text) << std::hex << code;
    for (uint32_t code = 0x20000002; code <= 0x20000027; ++code) EXPECT_NE(message_of(code), unknown_text) << code;
    for (uint32_t code : {0u, 8u, 258u, 997u, 10013u, 10054u, 11001u, 12157u, 0x40000000u + 71u})
        EXPECT_NE(message_of(code), unknown_text) << code;
}

TEST(ErrorMessage, SystemTextMustFitWithItsLineEndWhichTheLengthCounts) {
    char buffer[64];
    const uint64_t length = VELLib::GetErrorMsg(5, buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "Access is denied.");
    EXPECT_EQ(length, std::strlen(buffer) + 2);
    EXPECT_EQ(VELLib::GetErrorMsg(5, buffer, length + 1), length);
    EXPECT_EQ(message_of(5, length), unknown_text.substr(0, length - 1)) << "no room: the fallback, cut to size - 1";
    EXPECT_EQ(message_of(5, 1), "");
    EXPECT_EQ(VELLib::GetErrorMsg(5, nullptr, 64) + VELLib::GetErrorMsg(5, buffer, 0), 0u);
}

TEST(Exception, KeepsCodeAndAtMost511Bytes) {
    const VEL_Exception cut(87, std::string(600, 'x').c_str());
    EXPECT_EQ(cut.GetErrorCode(), 87u);
    EXPECT_EQ(std::string(cut.GetErrorMsg()), std::string(511, 'x'));
    const VEL_Exception access(5, nullptr);
    EXPECT_STREQ(access.GetErrorMsg(), "Access is denied.");
    try {
        VEL_Exception::ThrowException(0x20000004);
        FAIL();
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), 0x20000004u);
    }
}

TEST(Exception, TellsOfShortMemoryWithoutAny) {
    char known[64], foreign[64];
    {
        const vel::testing::FailingAllocations failing(0);
        std::strcpy(known, VEL_Exception(8).GetErrorMsg());
        std::strcpy(foreign, VEL_Exception(0x40000000u + 43u).GetErrorMsg()); // the system's text, longer than a word
    }
    EXPECT_STREQ(known, "Not enough memory is available.");
    EXPECT_EQ(foreign, unknown_text);
}

} // namespace
