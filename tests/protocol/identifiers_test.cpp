#include "ocp_api/identifier_tables.hpp"
#include "ocp_api/identifiers.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace ocp_api;

// The lookups behave the same for the enumerations of either class.
template <class Identifiers>
class Identifiers_ : public ::testing::Test {};
using BothClasses = ::testing::Types<PhysicalIdentifiers, VirtualIdentifiers>;
TYPED_TEST_SUITE(Identifiers_, BothClasses);

TYPED_TEST(Identifiers_, EveryItemHasAUniqueNameThatMapsBack) {
    using Items = typename TypeParam::OCP_Items;
    std::set<std::string_view> names;
    for (const Items item : TypeParam::ALL_ITEMS) {
        const auto name = item_name(item);
        ASSERT_FALSE(name.empty());
        names.insert(name);
        EXPECT_EQ(item_from_name<Items>(name), item);
    }
    EXPECT_EQ(names.size(), 48u);
    EXPECT_EQ(item_name(Items::POS_FB_41), "POS_FB_41");
    EXPECT_EQ(item_name(static_cast<Items>(0x4E)), "");
    EXPECT_EQ(item_from_name<Items>("pos_fb_4c"), Items::POS_FB_4C);
    EXPECT_EQ(item_from_name<Items>("nope"), std::nullopt);
}

TYPED_TEST(Identifiers_, ThirtyOneParametersInTableOrder) {
    using Parameters = typename TypeParam::OCP_Parameters;
    const auto& all = TypeParam::ALL_PARAMETERS;
    ASSERT_EQ(all.size(), 31u);
    EXPECT_EQ(all.front(), Parameters::K_DAMP);
    EXPECT_EQ(all[15], Parameters::MODE);
    EXPECT_EQ(all.back(), Parameters::CAN_HIGH_SPEED);
    for (const Parameters p : all) EXPECT_EQ(parameter_from_name<Parameters>(parameter_name(p)), p);
    EXPECT_EQ(parameter_from_name<Parameters>("limit_torque"), Parameters::LIMIT_TORQUE);
    EXPECT_EQ(parameter_from_name<Parameters>(""), std::nullopt);
}

TYPED_TEST(Identifiers_, Modes) {
    using Mode = typename TypeParam::Mode;
    EXPECT_EQ(static_cast<int>(Mode::TORQUE), 5);
    EXPECT_EQ(static_cast<int>(Mode::IMPEDANCE), 8);
    EXPECT_EQ(mode_name(Mode::POSITION), "POSITION");
    EXPECT_EQ(mode_name(static_cast<Mode>(3)), "");
    EXPECT_EQ(mode_from_name<Mode>("speed"), Mode::SPEED);
}

TEST(Identifiers, ModelTable) {
    EXPECT_EQ(tables::MODELS.size(), 11u);
    EXPECT_EQ(model_name_of(MODEL_CODE_CAN_ADAPTER), "CAN_ADAPTER");
    EXPECT_EQ(model_name_of(3), "HERON_A");
    EXPECT_EQ(model_name_of(11), "");
}

TEST(Identifiers, CodesAndConversionBetweenTheTwoClasses) {
    EXPECT_EQ(code_of(PhysicalIdentifiers::Rates::RATE_10KHZ), 10000);
    EXPECT_EQ(code_of(VirtualIdentifiers::OCP_Parameters::CAN_HIGH_SPEED), 0x85);
    EXPECT_EQ(identifier_cast<VirtualIdentifiers::Mode>(PhysicalIdentifiers::Mode::IMPEDANCE),
              VirtualIdentifiers::Mode::IMPEDANCE);
    EXPECT_EQ(identifier_cast<PhysicalIdentifiers::OCP_Items>(VirtualIdentifiers::OCP_Items::ITEM_9A),
              PhysicalIdentifiers::OCP_Items::ITEM_9A);
    // Values without a member travel unchanged, as on the wire.
    EXPECT_EQ(code_of(identifier_cast<VirtualIdentifiers::SpeedPerformance>(
                  static_cast<PhysicalIdentifiers::SpeedPerformance>(200))),
              200);
}

}  // namespace
