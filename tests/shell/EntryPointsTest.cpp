// The four entry points of the control's library: creation by class name, the
// unload test, and registration under the user's data directory.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "FakeHost.h"
#include "shell/ComponentEntryPoints.h"
#include "shell/Ctr_Calvarine.h"

namespace {

class EntryPointsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "calvarine-entry-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_dataHome = pattern;
        setenv("XDG_DATA_HOME", m_dataHome.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("XDG_DATA_HOME");
        std::filesystem::remove_all(m_dataHome);
    }

    std::filesystem::path m_dataHome;
    FakeHost m_host;
};

TEST_F(EntryPointsTest, CreatesTheControlByItsClassNameOnly)
{
    std::shared_ptr<void> object;
    EXPECT_EQ(DllGetClassObject("Belmontis.Ctr_Belmontis", &m_host, &object), 1);
    EXPECT_EQ(DllGetClassObject("Calvarine.Ctr_Calvarine ", &m_host, &object), 1);
    EXPECT_EQ(DllGetClassObject(nullptr, &m_host, &object), 1);
    EXPECT_EQ(DllGetClassObject("Calvarine.Ctr_Calvarine", nullptr, &object), 2);
    EXPECT_FALSE(object);
    EXPECT_EQ(DllCanUnloadNow(), 0);

    ASSERT_EQ(DllGetClassObject("Calvarine.Ctr_Calvarine", &m_host, &object), 0);
    ASSERT_TRUE(object);
    auto& control = *static_cast<Ctr_Calvarine*>(object.get());
    EXPECT_FALSE(control.W_Sortir);
    EXPECT_EQ(control.Controls().get("Opt_Papier").value(), true);

    // The library stays loaded while one of its objects is alive.
    std::shared_ptr<void> second;
    ASSERT_EQ(DllGetClassObject("Calvarine.Ctr_Calvarine", &m_host, &second), 0);
    EXPECT_EQ(DllCanUnloadNow(), 1);
    object.reset();
    EXPECT_EQ(DllCanUnloadNow(), 1);
    second.reset();
    EXPECT_EQ(DllCanUnloadNow(), 0);
}

TEST_F(EntryPointsTest, RegistersTheLibraryPathUnderTheDataDirectory)
{
    const std::filesystem::path entry = m_dataHome / "calvarine" / "components" / "Calvarine.Ctr_Calvarine";
    EXPECT_EQ(ComponentRegistration::directory(), (m_dataHome / "calvarine" / "components").string());
    ASSERT_EQ(DllRegisterServer(), 0);
    ASSERT_TRUE(std::filesystem::exists(entry));
    std::string library;
    std::getline(std::ifstream(entry), library);
    const std::filesystem::path path(library);
    EXPECT_TRUE(path.is_absolute()) << library;
    EXPECT_TRUE(std::filesystem::exists(path)) << library;
    EXPECT_NE(path.filename().string().find("calvarine"), std::string::npos) << library;

    // Registering again rewrites the same entry.
    EXPECT_EQ(DllRegisterServer(), 0);
    EXPECT_EQ(DllUnregisterServer(), 0);
    EXPECT_FALSE(std::filesystem::exists(entry));
    // Unregistering what is not registered is no failure.
    EXPECT_EQ(DllUnregisterServer(), 0);
}

TEST_F(EntryPointsTest, RegistrationFailsWhenTheDirectoryCannotBeMade)
{
    // A file where the folder should be.
    std::ofstream(m_dataHome / "calvarine") << "not a folder";
    EXPECT_EQ(DllRegisterServer(), 2);
}

} // namespace
