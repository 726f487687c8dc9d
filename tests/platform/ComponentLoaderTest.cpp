#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include <QTemporaryDir>

#include "ComponentLoader.h"
#include "Trust.h"
#include "shell/Components.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kClass = "Belmontis.Ctr_Belmontis";
constexpr const char* kLibrary = "libbelmontis.so";

// A per-user data folder outside the temporary directory (in the build tree),
// made private as a home folder is, with an "installed" copy of the library.
class ComponentLoaderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        fs::path home = CALVARINE_TEST_SAFE_HOME;
        if (components::inSharedTemporaryFolder(home) && std::getenv("HOME")) {
            home = fs::path(std::getenv("HOME")) / ".cache" / "calvarine-tests"; // a build tree under /tmp
        }
        m_base = home / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(m_base);
        for (const auto& folder : {m_base, m_base / "calvarine", registrations(), installed()}) {
            fs::create_directories(folder);
            fs::permissions(folder, fs::perms(0755));
        }
        fs::copy_file(CALVARINE_BELMONTIS_LIBRARY, installed() / kLibrary);
        m_marker = m_base / "planted-ran";
        setenv("PLANTED_MARKER", m_marker.c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("PLANTED_MARKER");
        fs::remove_all(m_base);
    }

    fs::path registrations() const { return m_base / "calvarine" / "components"; }
    fs::path installed() const { return m_base / "usr-lib"; }
    fs::path registration() const { return registrations() / kClass; }

    void registerLibrary(const std::string& named, fs::perms mode = fs::perms(0644))
    {
        std::ofstream(registration()) << named << '\n';
        fs::permissions(registration(), mode);
    }

    // The library the loader would open, and what it said about it.
    fs::path resolve(const fs::path& registrationFolder)
    {
        components::ComponentLoader loader({installed()}, registrationFolder, [this](const std::string& text) { warnings.push_back(text); });
        return loader.libraryOf(kClass, kLibrary);
    }
    fs::path resolve() { return resolve(registrations()); }

    std::string lastWarning() const { return warnings.empty() ? std::string("<none>") : warnings.back(); }

    fs::path m_base;
    fs::path m_marker;
    std::vector<std::string> warnings;
};

} // namespace

TEST_F(ComponentLoaderTest, ATrustedRegistrationNamesAnInstalledLibrary)
{
    // Without a registration: the installed library.
    EXPECT_EQ(resolve(), installed() / kLibrary);
    // A registration may name it by any absolute path that leads there.
    registerLibrary((installed() / ".." / "usr-lib" / kLibrary).string());
    EXPECT_EQ(resolve(), fs::canonical(installed() / kLibrary));
    EXPECT_TRUE(warnings.empty()) << lastWarning();

    // The library's own registration, written under a lax umask, is one the loader trusts.
    fs::remove(registration());
    void* handle = dlopen((installed() / kLibrary).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto entry = [&](const char* name) { return reinterpret_cast<int (*)()>(dlsym(handle, name))(); };
    setenv("XDG_DATA_HOME", m_base.c_str(), 1);
    const mode_t mask = umask(0);
    EXPECT_EQ(entry("DllRegisterServer"), 0);
    umask(mask);
    EXPECT_EQ(resolve(), fs::canonical(installed() / kLibrary));
    EXPECT_TRUE(warnings.empty()) << lastWarning();

    // The object is made, holds the library and lets it go.
    std::shared_ptr<LateBoundObject> control;
    {
        components::ComponentLoader loader({installed()}, registrations());
        control = loader.createLateBound(kClass, kLibrary);
    }
    Variant periode = std::string("202611");
    EXPECT_NO_THROW(control->setProperty("W_Periode", periode)); // outlives its loader
    EXPECT_EQ(entry("DllCanUnloadNow"), 1);
    control.reset();
    EXPECT_EQ(entry("DllCanUnloadNow"), 0);
    EXPECT_EQ(entry("DllUnregisterServer"), 0);
    EXPECT_FALSE(fs::exists(registration()));
    unsetenv("XDG_DATA_HOME");
    dlclose(handle);

    components::ComponentLoader loader({installed()}, registrations());
    EXPECT_THROW(loader.create("Absent.Classe", "libabsent.so"), components::ComponentError);
    EXPECT_THROW(loader.create("../escape", kLibrary), components::ComponentError);
    EXPECT_THROW(components::ComponentLoader({installed()}, {}).create(kClass, "../usr-lib/libbelmontis.so"),
        components::ComponentError);
    // The installed library does not hold every class.
    EXPECT_THROW(loader.create("Autre.Classe", kLibrary), components::ComponentError);
}

TEST_F(ComponentLoaderTest, PlantedRegistrationsAreRefusedOnceAndTheInstalledLibraryUsed)
{
    const std::string planted = CALVARINE_PLANTED_LIBRARY;
    const fs::path installedLibrary = installed() / kLibrary;

    // A library outside the application's folder, an absolute path.
    registerLibrary(planted);
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find("not in the application's library folder"), std::string::npos) << lastWarning();
    EXPECT_NE(lastWarning().find(installedLibrary.string() + " is used"), std::string::npos) << lastWarning();

    // The build tree's own library, registered by an earlier run from there.
    registerLibrary(CALVARINE_BELMONTIS_LIBRARY);
    EXPECT_EQ(resolve(), installedLibrary);

    // A bare name, which the dynamic linker would look up in LD_LIBRARY_PATH.
    setenv("LD_LIBRARY_PATH", fs::path(planted).parent_path().c_str(), 1);
    registerLibrary(fs::path(planted).filename().string());
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find("not an absolute path"), std::string::npos) << lastWarning();
    unsetenv("LD_LIBRARY_PATH");

    // The right library, but a file or a folder others may write.
    registerLibrary(installedLibrary.string(), fs::perms(0666));
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find("may be written by other users (mode 666)"), std::string::npos) << lastWarning();
    registerLibrary(installedLibrary.string());
    fs::permissions(registrations(), fs::perms(0775));
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find(registrations().string() + " may be written"), std::string::npos) << lastWarning();
    fs::permissions(registrations(), fs::perms(0755));
    fs::permissions(installedLibrary, fs::perms(0775));
    EXPECT_THROW(resolve(), components::ComponentError) << "the library itself is checked too, and nothing is left to open";
    fs::permissions(installedLibrary, fs::perms(0755));

    // A symbolic link in place of the file.
    fs::remove(registration());
    std::ofstream(m_base / "elsewhere") << planted << '\n';
    fs::create_symlink(m_base / "elsewhere", registration());
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find("symbolic link"), std::string::npos) << lastWarning();
    fs::remove(registration());

    // Reported once per loader, however often the class is asked for.
    registerLibrary(planted);
    warnings.clear();
    {
        components::ComponentLoader loader({installed()}, registrations(), [this](const std::string& text) { warnings.push_back(text); });
        auto first = loader.createLateBound(kClass, kLibrary);
        auto second = loader.createLateBound(kClass, kLibrary);
    }
    EXPECT_EQ(warnings.size(), 1u);

    // None of this ran a line of the planted library, which would have left its mark.
    EXPECT_FALSE(fs::exists(m_marker));
    void* handle = dlopen(planted.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    dlclose(handle);
    EXPECT_TRUE(fs::exists(m_marker)) << "the planted library marks when loaded";
}

// The installed library is opened only where no other user could have put
// another in its place: its folder and the folders above are checked as a
// registration's are (a shared folder above with the sticky bit, as /tmp, is not
// anyone's to move things in).
TEST_F(ComponentLoaderTest, TheApplicationsOwnLibraryFolderIsCheckedToo)
{
    const fs::path installedLibrary = installed() / kLibrary;
    EXPECT_EQ(resolve(fs::path()), installedLibrary);
    for (const auto& [folder, mode] : {std::pair{installed(), "777"}, std::pair{m_base, "775"}}) {
        fs::permissions(folder, mode == std::string("777") ? fs::perms(0777) : fs::perms(0775));
        try {
            resolve(fs::path());
            ADD_FAILURE() << "the library was trusted under " << folder << " at mode " << mode;
        } catch (const components::ComponentError& refused) {
            EXPECT_NE(std::string(refused.what()).find(folder.string() + " may be written by other users (mode " + mode + ")"),
                std::string::npos)
                << refused.what();
        }
        fs::permissions(folder, fs::perms(0755));
    }
    // Sticky and root's, above the library's own folder: allowed.
    fs::permissions(m_base, fs::perms(01777));
    if (::getuid() == 0) {
        EXPECT_EQ(resolve(fs::path()), installedLibrary);
    }
    fs::permissions(m_base, fs::perms(0755));
    // The library's own folder may not be shared, sticky or not.
    fs::permissions(installed(), fs::perms(01777));
    EXPECT_THROW(resolve(fs::path()), components::ComponentError);
    fs::permissions(installed(), fs::perms(0755));
}

TEST_F(ComponentLoaderTest, NothingUnderTheTemporaryDirectoryIsTrusted)
{
    QTemporaryDir temporary;
    ASSERT_TRUE(temporary.isValid());
    const fs::path folder = fs::path(temporary.path().toStdString()) / "calvarine" / "components";
    fs::create_directories(folder);
    for (const auto& f : {folder.parent_path().parent_path(), folder.parent_path(), folder}) {
        fs::permissions(f, fs::perms(0700));
    }
    std::ofstream(folder / kClass) << (installed() / kLibrary).string() << '\n';
    EXPECT_EQ(resolve(folder), installed() / kLibrary);
    EXPECT_NE(lastWarning().find("temporary folder"), std::string::npos) << lastWarning();

    // Without HOME and XDG_DATA_HOME the data folder is the user's home, not the temporary directory.
    const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
    const std::string xdg = std::getenv("XDG_DATA_HOME") ? std::getenv("XDG_DATA_HOME") : "";
    unsetenv("HOME");
    unsetenv("XDG_DATA_HOME");
    const fs::path registrationFolder = components::registrationDirectory();
    if (!home.empty()) {
        setenv("HOME", home.c_str(), 1);
    }
    if (!xdg.empty()) {
        setenv("XDG_DATA_HOME", xdg.c_str(), 1);
    }
    EXPECT_FALSE(registrationFolder.empty());
    EXPECT_FALSE(components::inSharedTemporaryFolder(registrationFolder)) << registrationFolder;
}

TEST_F(ComponentLoaderTest, ARegistrationOfAnotherUserIsRefused)
{
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can give a file to another user";
    }
    const fs::path installedLibrary = installed() / kLibrary;
    registerLibrary(installedLibrary.string());
    ASSERT_EQ(chown(registration().c_str(), 65534, 65534), 0);
    EXPECT_EQ(resolve(), installedLibrary);
    EXPECT_NE(lastWarning().find("belongs to user id 65534"), std::string::npos) << lastWarning();
}
