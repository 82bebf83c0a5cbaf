// Addresses: text, numbers, records and their refusals.
#include <vel/platform/inet_addr.h>

#include <cstring>
#include <gtest/gtest.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/testing/expect_failure.h>

namespace {

namespace error = vel::error;
using vel::testing::expect_failure;

// Port 8080 at 10.1.2.3, as any user of the socket layer lays it out.
const uint8_t bytes[32] = {2, 0, 0x1F, 0x90, 10, 1, 2, 3};

TEST(InetAddr, TextNumbersAndRecordsMeanTheSame) {
    VEL_INET_Addr address(8080, 0x0A010203);
    EXPECT_EQ(std::memcmp(static_cast<const sockaddr*>(address), bytes, 16), 0);
    EXPECT_EQ(address.getport(), 8080);
    EXPECT_STREQ(address.getiptext(), "10.1.2.3");
    EXPECT_EQ(address, VEL_INET_Addr(8080, "10.1.2.3"));

    EXPECT_EQ(address.set(1, "localhost"), 0);
    EXPECT_EQ(address, VEL_INET_Addr(1, "127.0.0.1"));
    EXPECT_EQ(address.set(2, static_cast<const char*>(nullptr)), 0);
    expect_failure(error::address_not_available, address.set(3, "1.2.3.09"));
    EXPECT_EQ(address.set(3, "256.1.1.1"), -1);
    EXPECT_GE(VELLib::GetErrorCode(), error::host_not_found);
    EXPECT_LE(VELLib::GetErrorCode(), error::resolver_no_data);
    EXPECT_EQ(address, VEL_INET_Addr(2, 0)) << "a failure leaves the address as it was";
}

TEST(InetAddr, RecordsAreCheckedAndCut) {
    const auto* record = reinterpret_cast<const sockaddr*>(bytes);
    VEL_INET_Addr address(7, 7), other(7, 7);
    for (const int length : {-1, INT32_MIN, 0, 15}) {
        expect_failure(error::address_not_available, address.set(record, length));
    }
    EXPECT_EQ(address, other);
    address.length() = 99;
    EXPECT_EQ(address.set(record, INT32_MAX), 0);
    EXPECT_EQ(address, VEL_INET_Addr(8080, "10.1.2.3"));
    EXPECT_EQ(address.length(), 99) << "the length field is not part of it";
    other = address;
    address.length() = 15; // too short to be copied, while equality and self-assignment do not care
    EXPECT_EQ(other, address);
    EXPECT_THROW(other = address, VEL_Exception);
    address = *&address;
    EXPECT_EQ(address.getiptext(), nullptr);

    *reinterpret_cast<uint8_t*>(static_cast<sockaddr*>(other)) = 10; // a foreign family
    EXPECT_EQ(other.getport(), 0xFFFF);
    EXPECT_EQ(other.getiptext(), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), error::address_not_available);
}

} // namespace
