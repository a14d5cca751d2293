// The terminal that the service takes for the controller's port.
#include "ServicePort.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "ScratchFolder.h"

namespace {

class ServicePortTerminal : public testing::Test
{
protected:
    ServicePortTerminal() : m_strLink((m_folder.path() / "ttyACM").string()), m_port(m_strLink) {}

    int openLink() const
    {
        return open(m_strLink.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    }
    std::string target() const
    {
        std::array<char, 64> acTarget{};
        (void)!readlink(m_strLink.c_str(), acTarget.data(), acTarget.size() - 1);
        return acTarget.data();
    }
    /** The result of the next read that is not empty. */
    int readPort(std::string& strText)
    {
        std::array<char, 64> acData{};
        int nRead = 0;
        (void)eventually([&] {
            nRead = m_port.read(acData.data(), acData.size());
            return 0 != nRead;
        });
        strText.assign(acData.data(), (nRead > 0) ? static_cast<size_t>(nRead) : 0);
        return nRead;
    }
    static std::string readUser(int nFd)
    {
        std::array<char, 64> acData{};
        const ssize_t nRead = read(nFd, acData.data(), acData.size());
        return std::string(acData.data(), (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }

    ScratchFolder m_folder;
    std::string m_strLink;
    ServicePort m_port;
};

} // namespace

TEST_F(ServicePortTerminal, BytesPassAsTheyAreInBothDirections)
{
    ASSERT_TRUE(m_port.renew());
    const int nUser = openLink();
    ASSERT_GE(nUser, 0);
    const std::string strAll = "\r\n\x03\x04\x11\x13\x18\x1A\x7F\xFF";

    ASSERT_EQ(static_cast<ssize_t>(strAll.size()), write(nUser, strAll.data(), strAll.size()));
    std::string strRead;
    EXPECT_EQ(static_cast<int>(strAll.size()), readPort(strRead));
    EXPECT_EQ(strAll, strRead);
    EXPECT_TRUE(m_port.write(strAll.data(), strAll.size()));
    EXPECT_TRUE(eventually([&] { return strAll == readUser(nUser); }));
    close(nUser);
}

TEST_F(ServicePortTerminal, NobodyHasOpenedItIsNoHangUp)
{
    ASSERT_TRUE(m_port.renew());
    std::array<char, 8> acData{};
    pollfd entry{m_port.getFd(), POLLIN, 0};

    EXPECT_EQ(0, poll(&entry, 1, 0));
    EXPECT_EQ(0, m_port.read(acData.data(), acData.size()));
}

TEST_F(ServicePortTerminal, HangUpIsOneEventAndTheNextUserGetsNothingOfTheFormer)
{
    ASSERT_TRUE(m_port.renew());
    const std::string strFormer = target();
    int nUser = openLink();
    ASSERT_TRUE(m_port.write("error:20\n", 9)); // not read
    close(nUser);
    std::string strRead;
    EXPECT_EQ(-1, readPort(strRead));

    ASSERT_TRUE(m_port.renew());

    EXPECT_NE(strFormer, target());
    pollfd entry{m_port.getFd(), POLLIN, 0};
    EXPECT_EQ(0, poll(&entry, 1, 0));
    nUser = openLink();
    ASSERT_GE(nUser, 0);
    EXPECT_EQ("", readUser(nUser));
    EXPECT_EQ(EAGAIN, errno);
    close(nUser);
}

TEST_F(ServicePortTerminal, LinkIsNeverAway)
{
    ASSERT_TRUE(m_port.renew());

    struct stat status = {};
    ASSERT_EQ(0, lstat(m_strLink.c_str(), &status));
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    m_folder.write("other", "");
    const int nFolder = open(m_folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_TRUE(m_port.renew()); // over the former link
    EXPECT_EQ(0, faccessat(nFolder, "ttyACM", F_OK, 0));
    EXPECT_NE(0, faccessat(nFolder, "ttyACM.new", F_OK, AT_SYMLINK_NOFOLLOW));
    close(nFolder);
}

TEST_F(ServicePortTerminal, CallsOfASerialPortEndAsThere)
{
    ASSERT_TRUE(m_port.renew());
    const int nUser = openLink();

    EXPECT_EQ(0, tcflush(nUser, TCIOFLUSH));
    int nValue = 0;
    EXPECT_EQ(-1, ioctl(nUser, TIOCSERGETLSR, &nValue));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(-1, fsync(nUser));
    EXPECT_EQ(EINVAL, errno);
    close(nUser);
}

TEST_F(ServicePortTerminal, GroupMayOpenTheTerminal)
{
    const gid_t nGroup = (0 == geteuid()) ? 1 : getegid(); // only root may give it to any
    const group* const pGroup = getgrgid(nGroup);
    ASSERT_NE(nullptr, pGroup);
    std::string strError;
    ASSERT_EQ(GROUP_FOUND, m_port.setGroup(pGroup->gr_name, strError));

    ASSERT_TRUE(m_port.renew());

    struct stat status = {};
    ASSERT_EQ(0, stat(m_strLink.c_str(), &status));
    EXPECT_EQ(nGroup, status.st_gid);
    EXPECT_EQ(0660U, status.st_mode & 0777U);
    EXPECT_EQ(GROUP_UNKNOWN, m_port.setGroup("no such one", strError));
    EXPECT_EQ("no such group: no such one", strError);
}

TEST_F(ServicePortTerminal, GroupsThatCannotBeReadNowAreToldApart)
{
    rlimit former{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    const rlimit none{0, former.rlim_max};
    std::string strError;

    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const GROUP_E eGroup = m_port.setGroup("no such one", strError);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &former));

    EXPECT_EQ(GROUP_FAILED, eGroup);
    EXPECT_EQ(std::string("group no such one: ") + strerror(EMFILE), strError);
}

TEST_F(ServicePortTerminal, AnswerThatIsNotTakenWholeIsTold)
{
    ASSERT_TRUE(m_port.renew());
    const int nUser = openLink();
    const std::string strBlock(512, 'x');

    bool bWhole = true;
    for (int n = 0; n < 10000 && bWhole; ++n) { // nobody reads
        bWhole = m_port.write(strBlock.data(), strBlock.size());
    }

    EXPECT_FALSE(bWhole);
    close(nUser);
}

TEST_F(ServicePortTerminal, WithoutATerminalThereIsNoLink)
{
    ASSERT_TRUE(m_port.renew());
    std::filesystem::rename(m_folder.path() / "ttyACM", m_folder.path() / "kept");
    // Where the link would be made, a folder that is not empty is in the way.
    std::filesystem::create_directories(m_folder.path() / "ttyACM.new" / "x");

    EXPECT_FALSE(m_port.renew());

    EXPECT_EQ(-1, m_port.getFd());
    EXPECT_FALSE(m_port.write("ok\n", 3));
    EXPECT_EQ("", target());
    std::filesystem::remove_all(m_folder.path() / "ttyACM.new");
    EXPECT_TRUE(m_port.renew());
}

TEST_F(ServicePortTerminal, LinkGoesWithTheObject)
{
    {
        ServicePort port(m_strLink);
        ASSERT_TRUE(port.renew());
    }

    struct stat status = {};
    EXPECT_NE(0, lstat(m_strLink.c_str(), &status));
}
