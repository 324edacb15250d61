#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "ocp_api/orrery_actuator_virtual.hpp"
#include "support/failing_allocation.hpp"

namespace {

namespace fs = std::filesystem;
using ocp_api::OrreryActuatorVirtual;
using Names = std::vector<std::string>;

class ModelCatalogue : public ::testing::Test {
protected:
    ModelCatalogue() {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        root = fs::temp_directory_path() / ("ocp_api_catalogue_" + std::to_string(::getpid()) + "_" + info->name());
        fs::remove_all(root);
        fs::create_directories(root);
    }
    ~ModelCatalogue() override {
        std::error_code ignored;
        fs::permissions(root / "locked", fs::perms::owner_all, ignored);
        fs::remove_all(root, ignored);
    }
    void touch(const std::string& name) { std::ofstream(root / name) << "# model\n"; }
    Names discover() const { return OrreryActuatorVirtual::discover_available_actuators(root.string()); }

    fs::path root;
};

TEST_F(ModelCatalogue, EmptyPathAndMissingDirectoryGiveNothing) {
    EXPECT_TRUE(OrreryActuatorVirtual::discover_available_actuators("").empty());
    EXPECT_TRUE(OrreryActuatorVirtual::discover_available_actuators((root / "absent").string()).empty());
    touch("plain_file");
    EXPECT_TRUE(OrreryActuatorVirtual::discover_available_actuators((root / "plain_file").string()).empty());
}

TEST_F(ModelCatalogue, AnyExceptionWhileScanningEndsTheScanQuietly) {
    touch("bindings_HERON_A_Intel_x.py");
    fs::create_directories(root / "KESTREL_B");
    const std::string directory = root.string();
    Names found{"untouched"};
    {
        // Memory runs short: the scan cannot even open the directory.
        ocp_test::FailingAllocation short_of_memory;
        EXPECT_NO_THROW(found = OrreryActuatorVirtual::discover_available_actuators(directory));
    }
    EXPECT_TRUE(found.empty());
    EXPECT_EQ(discover(), (Names{"HERON_A", "KESTREL_B"}));
}

TEST_F(ModelCatalogue, BindingsFilesAndSubdirectoriesInOrder) {
    touch("bindings_KESTREL_A_Intel_x.py");
    touch("bindings_KESTREL_A_Intel_y.py");
    fs::create_directory(root / "HERON_C");
    touch("notes.txt");
    EXPECT_EQ(discover(), (Names{"HERON_C", "KESTREL_A"}));
}

TEST_F(ModelCatalogue, NamesAtTheEdgesOfThePattern) {
    touch("bindings__Intel_x.py");
    touch("bindings_HERON_D.py");
    touch("bindings_HERON_D_Intel_x.pyc");
    touch("HERON_D");
    touch("bindings_X_Intel_.py");
    touch("Bindings_Y_Intel_z.py");
    EXPECT_EQ(discover(), (Names{"X"}));
}

TEST_F(ModelCatalogue, FirstMarkerEndsTheName) {
    touch("bindings_A_Intel_B_Intel_c.py");
    EXPECT_EQ(discover(), (Names{"A"}));
}

TEST_F(ModelCatalogue, DirectoriesAreListedByNameUnfiltered) {
    fs::create_directory(root / "bindings_X_Intel_y.py");
    EXPECT_EQ(discover(), (Names{"bindings_X_Intel_y.py"}));
}

TEST_F(ModelCatalogue, SymbolicLinksAreFollowed) {
    fs::create_directory(root / "real_dir");
    touch("target.txt");
    fs::create_directory_symlink(root / "real_dir", root / "HERON_E");
    fs::create_symlink(root / "target.txt", root / "bindings_KESTREL_C_Intel_a.py");
    fs::create_symlink(root / "missing", root / "bindings_KESTREL_D_Intel_a.py");  // dangling
    EXPECT_EQ(discover(), (Names{"HERON_E", "KESTREL_C", "real_dir"}));
}

TEST_F(ModelCatalogue, UnreadableDirectoryGivesNothing) {
    if (::geteuid() == 0) {
        // root reads any directory; test the unreadable case through a path
        // whose parent is a file, which no user can open as a directory.
        touch("file");
        EXPECT_TRUE(OrreryActuatorVirtual::discover_available_actuators((root / "file" / "sub").string()).empty());
        return;
    }
    fs::create_directory(root / "locked");
    fs::create_directory(root / "locked" / "HERON_A");
    fs::permissions(root / "locked", fs::perms::none);
    EXPECT_TRUE(OrreryActuatorVirtual::discover_available_actuators((root / "locked").string()).empty());
}

TEST(ModelSelection, SetActuatorNamesModelAndFirmware) {
    OrreryActuatorVirtual actuator(0x21);
    EXPECT_EQ(actuator.set_actuator("HERON_A", "/models/a", "/models/aux"), 0);
    EXPECT_EQ(actuator.get_model_name(), "HERON_A");
    EXPECT_EQ(actuator.get_firmware_version(), "HERON_A:cpp-virtual-2.0.0");
    EXPECT_EQ(actuator.get_model_path(), "/models/a");
    EXPECT_EQ(actuator.get_model_aux_path(), "/models/aux");
    EXPECT_EQ(actuator.set_actuator("", "p", "q"), 0);
    EXPECT_EQ(actuator.get_model_name(), "");
    EXPECT_EQ(actuator.get_firmware_version(), "cpp-virtual-2.0.0");
}

TEST(ModelSelection, FromPathsOnAFreshActuator) {
    OrreryActuatorVirtual actuator(0x21);
    EXPECT_EQ(actuator.set_actuator_from_paths("p", "r"), 0);
    EXPECT_EQ(actuator.get_model_name(), "virtual-from-paths");
    EXPECT_EQ(actuator.get_firmware_version(), "virtual-from-paths:cpp-virtual-2.0.0");
    EXPECT_EQ(actuator.get_model_path(), "p");
    EXPECT_EQ(actuator.get_model_paths_extra(), "r");
    EXPECT_EQ(actuator.get_model_aux_path(), "");
}

TEST(ModelSelection, FromPathsAfterAnEmptyName) {
    OrreryActuatorVirtual actuator(0x21);
    actuator.set_actuator("", "p", "q");
    actuator.set_actuator_from_paths("p2", "r");
    EXPECT_EQ(actuator.get_model_name(), "");
    EXPECT_EQ(actuator.get_firmware_version(), ":cpp-virtual-2.0.0");
    EXPECT_EQ(actuator.get_model_aux_path(), "q") << "left alone";
    actuator.set_actuator("KESTREL_B", "p3", "q3");
    actuator.set_actuator_from_paths("p4", "r4");
    EXPECT_EQ(actuator.get_model_name(), "KESTREL_B");
    EXPECT_EQ(actuator.get_firmware_version(), "KESTREL_B:cpp-virtual-2.0.0");
    EXPECT_EQ(actuator.get_model_paths_extra(), "r4");
}

}  // namespace
