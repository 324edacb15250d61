#include "ocp_api/can_mapping.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace ocp_api::can;

TEST(CanMapping, EncodesTheDocumentedIdentifiers) {
    EXPECT_EQ(host_to_device_id(0x21), 0x00D00021u);
    EXPECT_EQ(device_to_host_id(0x21, 0), 0x00D04021u);
    EXPECT_EQ(device_to_host_id(0x21, 1), 0x00D0C021u);
    EXPECT_EQ(host_to_device_id(0), 0x00D00000u);
    EXPECT_EQ(host_to_device_id(0x3FFF), 0x00D03FFFu);
    EXPECT_EQ(device_to_host_id(0x3FFF, 1), 0x00D0FFFFu);
    EXPECT_EQ(encode_id({0x1234, Direction::to_host, 0}), 0x00D05234u);
}

TEST(CanMapping, DecodesEveryAddressBothWays) {
    for (int address = 0; address <= MAX_ADDRESS; ++address) {
        for (const MappedId id : {MappedId{address, Direction::to_device, 0}, MappedId{address, Direction::to_host, 0},
                                  MappedId{address, Direction::to_host, 1}}) {
            const auto decoded = decode_id(encode_id(id));
            ASSERT_TRUE(decoded.has_value());
            ASSERT_EQ(*decoded, id);
        }
    }
}

TEST(CanMapping, DecodesKnownIdentifiers) {
    EXPECT_EQ(decode_id(0x00D0C021u), (MappedId{0x21, Direction::to_host, 1}));
    EXPECT_EQ(decode_id(0x00D04021u), (MappedId{0x21, Direction::to_host, 0}));
    EXPECT_EQ(decode_id(0x00D00021u), (MappedId{0x21, Direction::to_device, 0}));
}

TEST(CanMapping, RejectsIdentifiersThatAreNotOurs) {
    EXPECT_FALSE(decode_id(0x00D08021u));  // kind bit towards a device
    EXPECT_FALSE(decode_id(0x00D10021u));  // another tag
    EXPECT_FALSE(decode_id(0x10D00021u));  // the tag's top bit
    EXPECT_FALSE(decode_id(0x20D00021u));  // beyond 29 bits
    EXPECT_FALSE(decode_id(0x00000021u));
    EXPECT_FALSE(decode_id(0x1FFFFFFFu));
}

TEST(CanMapping, RefusesToEncodeWhatItCannotCarry) {
    EXPECT_THROW(host_to_device_id(-1), std::invalid_argument);
    EXPECT_THROW(host_to_device_id(0x4000), std::invalid_argument);
    EXPECT_THROW(device_to_host_id(0x21, 2), std::invalid_argument);
    EXPECT_THROW(encode_id({0x21, Direction::to_device, 1}), std::invalid_argument);
}

TEST(CanMapping, FlowControlTravelsOnThePartnerIdentifier) {
    EXPECT_EQ(encode_id(flow_control_partner({0x21, Direction::to_device, 0})), 0x00D04021u);
    EXPECT_EQ(encode_id(flow_control_partner({0x21, Direction::to_host, 0})), 0x00D00021u);
    EXPECT_EQ(encode_id(flow_control_partner({0x21, Direction::to_host, 1})), 0x00D00021u);
}

}  // namespace
