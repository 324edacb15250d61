#include "ocp_api/codec.hpp"
#include "ocp_api/wire.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "support/recording_transport.hpp"

namespace {

using namespace ocp_api;
using namespace ocp_api::wire;
using ocp_test::Bytes;
using OCP_Items = PhysicalIdentifiers::OCP_Items;
using OCP_Parameters = PhysicalIdentifiers::OCP_Parameters;

TEST(AppendFloat, OnEmptyVectorYieldsFourBytes) {
    Bytes bytes;
    append_float(bytes, 1.0f);
    EXPECT_EQ(bytes, (Bytes{0x00, 0x00, 0x80, 0x3F}));
}

TEST(AppendFloat, AfterCodeByteFloatSitsAtOffsetsOneToFour) {
    Bytes bytes{0x04};
    append_float(bytes, 1.0f);
    EXPECT_EQ(bytes, (Bytes{0x04, 0x00, 0x00, 0x80, 0x3F}));
    Bytes more{0x04};
    append_float(more, 1.5f);
    EXPECT_EQ(more, (Bytes{0x04, 0x00, 0x00, 0xC0, 0x3F}));
}

TEST(Integers, LittleEndianRoundTrip) {
    Frame frame;
    append_u16(frame, 0x0842);
    append_u32(frame, 0xDEADBEEF);
    EXPECT_EQ(frame, (Bytes{0x42, 0x08, 0xEF, 0xBE, 0xAD, 0xDE}));
    EXPECT_EQ(read_u16(frame.data()), 0x0842);
    EXPECT_EQ(read_u32(frame.data() + 2), 0xDEADBEEFu);
}

TEST(FeedbackPeriod, RoundedIntegerDivisionOfTenThousand) {
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(0).period, 0u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(1000).period, 10u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(3).period, 3333u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(10000).period, 1u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(6667).period, 1u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(7).period, 1429u);
    EXPECT_EQ(ocp_api::codec::SetFeedbackRate::from_hz(1).period, 10000u);
}

TEST(ItemEncoding, ExactlyFortyEightCodesAreValid) {
    int valid = 0;
    for (int code = 0; code < 256; ++code) valid += is_item_code(static_cast<uint8_t>(code)) ? 1 : 0;
    EXPECT_EQ(valid, 48);
    for (const OCP_Items item : PhysicalIdentifiers::ALL_ITEMS) EXPECT_TRUE(is_item_code(static_cast<uint8_t>(item)));
}

TEST(ItemEncoding, CodesOutsideTheRangesAreNotItems) {
    EXPECT_FALSE(is_item_code(0x4E));
    for (int code = 0x63; code <= 0x6F; ++code) EXPECT_FALSE(is_item_code(static_cast<uint8_t>(code))) << code;
    for (int code = 0x74; code <= 0x8F; ++code) EXPECT_FALSE(is_item_code(static_cast<uint8_t>(code))) << code;
    for (int code = 0x9B; code <= 0xFF; ++code) EXPECT_FALSE(is_item_code(static_cast<uint8_t>(code))) << code;
    for (int code = 0x00; code <= 0x40; ++code) EXPECT_FALSE(is_item_code(static_cast<uint8_t>(code))) << code;
}

TEST(ItemEncoding, ValuesDecodeByTheirWireType) {
    EXPECT_EQ(decode_item_value(0x90, 0xFFFFFFFFu), 4294967296.0f);
    EXPECT_EQ(decode_item_value(0x4A, 0xFFFFFFFFu), -1.0f);
    EXPECT_EQ(decode_item_value(0x41, 0x3F800000u), 1.0f);
    for (const uint8_t code : {0x42, 0x44, 0x60, 0x61, 0x62, 0x90}) {
        EXPECT_EQ(item_value_type(code), ValueType::U32) << int(code);
        EXPECT_EQ(decode_item_value(code, 7u), 7.0f);
    }
    EXPECT_EQ(item_value_type(0x45), ValueType::F32);
}

TEST(ItemEncoding, DeviceSideEncodingIsTheInverseOfDecoding) {
    Frame frame;
    ocp_api::codec::ItemRecord::of(code_of(OCP_Items::ERRORS_90), 3.0f).encode_into(frame);
    ocp_api::codec::ItemRecord::of(code_of(OCP_Items::ITEM_4A), -2.0f).encode_into(frame);
    ocp_api::codec::ItemRecord::of(code_of(OCP_Items::POS_FB_41), 1.0f).encode_into(frame);
    EXPECT_EQ(frame, (Bytes{0x90, 3, 0, 0, 0, 0x4A, 0xFE, 0xFF, 0xFF, 0xFF, 0x41, 0x00, 0x00, 0x80, 0x3F}));
    // Out-of-range values saturate rather than overflow.
    EXPECT_EQ(encode_item_value(0x90, -5.0f), 0u);
    EXPECT_EQ(encode_item_value(0x90, NAN), 0u);
    EXPECT_EQ(encode_item_value(0x90, 1e20f), 0xFFFFFFFFu);
    EXPECT_EQ(encode_item_value(0x4A, 1e20f), 0x7FFFFFFFu);
    EXPECT_EQ(encode_item_value(0x4A, -1e20f), 0x80000000u);
}

TEST(ParameterEncoding, ModeBetweenMinusOneAndZeroIsPositiveZero) {
    for (const float received : {-0.5f, -0.0f, -0.999f}) {
        const float stored = decode_parameter_value(0x30, bits_from_float(received));
        EXPECT_EQ(bits_from_float(stored), 0x00000000u) << received;
    }
    EXPECT_EQ(decode_parameter_value(0x30, bits_from_float(-1.5f)), -1.0f);
    EXPECT_TRUE(std::isnan(decode_parameter_value(0x30, bits_from_float(std::nanf("")))));
}

TEST(ParameterEncoding, ModeTruncatesAndIntegerParametersReadIntegers) {
    EXPECT_EQ(decode_parameter_value(0x30, bits_from_float(6.7f)), 6.0f);
    EXPECT_EQ(decode_parameter_value(0x30, bits_from_float(7.9f)), 7.0f);
    EXPECT_EQ(decode_parameter_value(0x80, read_u32(Bytes{0x20, 0x4E, 0x00, 0x00}.data())), 20000.0f);
    for (const uint8_t code : {0x80, 0x82, 0x83, 0x84}) EXPECT_EQ(parameter_value_type(code), ValueType::U32);
    // Address and CAN high speed sit between integer neighbours but are floats.
    EXPECT_EQ(parameter_value_type(0x81), ValueType::F32);
    EXPECT_EQ(parameter_value_type(0x85), ValueType::F32);
    EXPECT_EQ(decode_parameter_value(0x81, bits_from_float(33.0f)), 33.0f);
}

TEST(ParameterEncoding, HostRecordsCarryFloatBytesDeviceRecordsTheWireType) {
    Frame host;
    ocp_api::codec::ParameterSetting{code_of(OCP_Parameters::DEVICE_80), 20000.0f}.encode_into(host);
    EXPECT_EQ(host, (Bytes{0x80, 0x00, 0x40, 0x9C, 0x46}));
    Frame device;
    ocp_api::codec::ParameterEntry::of(code_of(OCP_Parameters::DEVICE_80), 20000.0f).encode_into(device);
    EXPECT_EQ(device, (Bytes{0x80, 0x20, 0x4E, 0x00, 0x00}));
}

TEST(FirmwareVersion, PackedWordBecomesText) {
    EXPECT_EQ(firmware_version_text(0x0842), "1.1.2");
    EXPECT_EQ(firmware_version_text(0), "0.0.0");
    EXPECT_EQ(firmware_version_text(0xFFFF), "31.31.63");
    EXPECT_EQ(firmware_word(1, 1, 2), 0x0842);
}

TEST(Addresses, DeviceRange) {
    EXPECT_FALSE(is_valid_device_address(0x0F));
    EXPECT_TRUE(is_valid_device_address(0x10));
    EXPECT_TRUE(is_valid_device_address(0x3FFE));
    EXPECT_FALSE(is_valid_device_address(0x3FFF));
    EXPECT_FALSE(is_valid_device_address(-1));
}

}  // namespace
