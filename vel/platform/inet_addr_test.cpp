// Addresses: text, numbers, records and their refusals.
#include <vel/platform/inet_addr.h>

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/platform/dotted_quad.h>

namespace {

namespace error = vel::error;

// The record as any user of the socket layer lays it out.
std::array<uint8_t, 32> record(uint8_t family) { return {family, 0, 0x1F, 0x90, 10, 1, 2, 3}; }

const sockaddr* as_record(const std::array<uint8_t, 32>& bytes) {
    return reinterpret_cast<const sockaddr*>(bytes.data());
}

TEST(DottedQuad, TextsAreReadOrLeftToTheResolver) {
    struct Row {
        const char* text;
        bool accepted;
        uint32_t host;
    };
    constexpr uint32_t refused = 0xABCDEF01;
    const Row rows[] = {
        {"192.168.0.1", true, 0xC0A80001},
        {"255.255.255.255", true, 0xFFFFFFFF},
        {"0.0.0.0", true, 0},
        {"010.0.0.077", true, 0x0800003F}, // octal
        {"000.000.000.000", true, 0},
        {"08.0.0.1", true, refused},
        {"1.2.3.019", true, refused},
        {"192.168.0", false, refused},
        {"1.2.3.4.5", false, refused},
        {"256.1.1.1", false, refused},
        {"1.1.1.256", false, refused},
        {"1.1.1.0001", false, refused},
        {"1..1.1", false, refused},
        {".1.1.1.1", false, refused},
        {"1.1.1.1.", false, refused},
        {"1.1.1.1 ", false, refused},
        {"-1.1.1.1", false, refused},
        {"0x1.1.1.1", false, refused},
        {"255.255.255.2551", false, refused},
        {"", false, refused},
        {"localhost", false, refused},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(vel::is_dotted_quad(row.text), row.accepted) << row.text;
        uint32_t host = refused;
        const bool read = row.accepted && vel::read_dotted_quad(row.text, host);
        EXPECT_EQ(read, row.host != refused) << row.text;
        EXPECT_EQ(host, row.host) << row.text;
    }
}

TEST(InetAddr, StartsAsAnyAddressAndGoesBackToIt) {
    VEL_INET_Addr address;
    EXPECT_EQ(address.getport(), 0);
    EXPECT_EQ(address.getiplong(), 0u);
    EXPECT_EQ(address.length(), 16);
    EXPECT_STREQ(address.getiptext(), "0.0.0.0");
    address.set(0x1234, 0xC0A80102);
    address.length() = 3;
    address.reset();
    EXPECT_EQ(address, VEL_INET_Addr(0, 0));
    EXPECT_EQ(address.length(), 16);
}

TEST(InetAddr, RecordIsInNetworkOrder) {
    const VEL_INET_Addr address(8080, 0x0A010203);
    EXPECT_EQ(std::memcmp(static_cast<const sockaddr*>(address), record(2).data(), 16), 0);
    EXPECT_EQ(address.getport(), 8080);
    EXPECT_EQ(address.getiplong(), 0x0A010203u);
    EXPECT_STREQ(address.getiptext(), "10.1.2.3");
    EXPECT_EQ(address, VEL_INET_Addr(8080, "10.1.2.3"));
}

TEST(InetAddr, TextIsParsedResolvedOrRefused) {
    VEL_INET_Addr address;
    EXPECT_EQ(address.set(1, "localhost"), 0);
    EXPECT_EQ(address, VEL_INET_Addr(1, "127.0.0.1"));
    EXPECT_EQ(address.set(2, static_cast<const char*>(nullptr)), 0);
    EXPECT_EQ(address, VEL_INET_Addr(2, 0));
    EXPECT_EQ(address.set(3, "1.2.3.09"), -1);
    EXPECT_EQ(VELLib::GetErrorCode(), error::address_not_available);
    for (const char* name : {"256.1.1.1", "1.2.3.4.5", "no.such.host.invalid"}) {
        EXPECT_EQ(address.set(3, name), -1) << name;
        EXPECT_GE(VELLib::GetErrorCode(), error::host_not_found) << name;
        EXPECT_LE(VELLib::GetErrorCode(), error::resolver_no_data) << name;
        EXPECT_THROW(VEL_INET_Addr(3, name), VEL_Exception) << name;
    }
    EXPECT_EQ(address, VEL_INET_Addr(2, 0)) << "a failure leaves the address as it was";
}

TEST(InetAddr, RecordsAreCheckedAndCut) {
    const auto good = record(2), foreign = record(10);
    VEL_INET_Addr address(7, 7);
    for (const int length : {-1, INT32_MIN, 0, 15}) {
        VELLib::SetErrorCode(1);
        EXPECT_EQ(address.set(as_record(good), length), -1) << length;
        EXPECT_EQ(VELLib::GetErrorCode(), error::address_not_available) << length;
    }
    EXPECT_EQ(address.set(as_record(foreign), 28), -1);
    EXPECT_EQ(address, VEL_INET_Addr(7, 7));
    address.length() = 99;
    EXPECT_EQ(address.set(as_record(good), INT32_MAX), 0);
    EXPECT_EQ(address, VEL_INET_Addr(8080, "10.1.2.3"));
    EXPECT_EQ(address.length(), 99) << "the length field is not part of it";
    EXPECT_THROW(VEL_INET_Addr(as_record(foreign), 16), VEL_Exception);
}

TEST(InetAddr, ForeignFamilyHasNoPortAddressOrText) {
    VEL_INET_Addr address(80, "10.1.2.3");
    *reinterpret_cast<uint8_t*>(static_cast<sockaddr*>(address)) = 10;
    EXPECT_EQ(address.getport(), 0xFFFF);
    EXPECT_EQ(address.getiplong(), 0xFFFFFFFFu);
    VELLib::SetErrorCode(1);
    EXPECT_EQ(address.getiptext(), nullptr);
    EXPECT_EQ(VELLib::GetErrorCode(), error::address_not_available);
    EXPECT_NE(address, VEL_INET_Addr(80, "10.1.2.3"));
}

TEST(InetAddr, CopiesGoByTheLengthAndEqualityDoesNot) {
    VEL_INET_Addr address(80, "10.1.2.3"), other(80, "10.1.2.4");
    VEL_INET_Addr copy(address);
    EXPECT_EQ(copy, address);
    address.length() = 15;
    EXPECT_EQ(copy, address);
    EXPECT_EQ(address.getiptext(), nullptr);
    EXPECT_NE(copy, other);
    EXPECT_NE(copy, VEL_INET_Addr(81, "10.1.2.3"));
    try {
        copy = address;
        FAIL() << "a record that is too short was copied";
    } catch (const VEL_Exception& exception) {
        EXPECT_EQ(exception.GetErrorCode(), error::address_not_available);
    }
    address = *&address; // to itself: nothing happens, whatever the length
    EXPECT_EQ(address.length(), 15);
}

} // namespace
