#include "ocp_api/identifiers.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace ocp_api;

TEST(Identifiers, EveryItemHasAUniqueNameThatMapsBack) {
    std::set<std::string_view> names;
    for (const OCP_Items item : ALL_ITEMS) {
        const auto name = item_name(item);
        ASSERT_FALSE(name.empty());
        names.insert(name);
        EXPECT_EQ(item_from_name(name), item);
    }
    EXPECT_EQ(names.size(), 48u);
    EXPECT_EQ(item_name(OCP_Items::POS_FB_41), "POS_FB_41");
    EXPECT_EQ(item_from_name("pos_fb_4c"), OCP_Items::POS_FB_4C);
    EXPECT_EQ(item_from_name("nope"), std::nullopt);
}

TEST(Identifiers, ThirtyOneParametersInTableOrder) {
    ASSERT_EQ(ALL_PARAMETERS.size(), 31u);
    EXPECT_EQ(ALL_PARAMETERS.front(), OCP_Parameters::K_DAMP);
    EXPECT_EQ(ALL_PARAMETERS[15], OCP_Parameters::MODE);
    EXPECT_EQ(ALL_PARAMETERS.back(), OCP_Parameters::CAN_HIGH_SPEED);
    for (const OCP_Parameters p : ALL_PARAMETERS) EXPECT_EQ(parameter_from_name(parameter_name(p)), p);
    EXPECT_EQ(parameter_from_name("limit_torque"), OCP_Parameters::LIMIT_TORQUE);
    EXPECT_EQ(parameter_from_name(""), std::nullopt);
}

TEST(Identifiers, ModesAndModelTable) {
    EXPECT_EQ(static_cast<int>(Mode::TORQUE), 5);
    EXPECT_EQ(static_cast<int>(Mode::IMPEDANCE), 8);
    EXPECT_EQ(mode_name(Mode::POSITION), "POSITION");
    EXPECT_EQ(mode_name(static_cast<Mode>(3)), "");
    EXPECT_EQ(mode_from_name("speed"), Mode::SPEED);
    EXPECT_EQ(MODEL_NAME_TABLE.size(), 11u);
    EXPECT_STREQ(MODEL_NAME_TABLE[MODEL_CODE_CAN_ADAPTER], "CAN_ADAPTER");
    EXPECT_STREQ(MODEL_NAME_TABLE[3], "HERON_A");
}

}  // namespace
