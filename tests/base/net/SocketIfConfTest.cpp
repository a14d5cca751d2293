// Socket::getIfConf with many interfaces, on a host of the test's own.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "Socket.h"

namespace {

/** Give the loopback interface more addresses, an interface of its own each to this listing. */
void addInterfaces(int nFrom, int nTo)
{
    for (int i = nFrom; i <= nTo; ++i) {
        const std::string strNumber = std::to_string(i);
        const std::string strCommand =
            "ip address add 127.0.1." + strNumber + "/8 dev lo label lo:" + strNumber;
        ASSERT_EQ(0, system(strCommand.c_str()));
    }
}

std::string listed()
{
    std::vector<InterfaceRecord> vecRecord;
    EXPECT_EQ(0, Socket::getIfConf(vecRecord));
    std::string strNames;
    for (const InterfaceRecord& record : vecRecord) {
        strNames += record.strName + " " + record.strAddress + "\n";
    }
    return strNames;
}

} // namespace

TEST(SocketIfConf, EachOfManyIsListedTenAtMost)
{
    EXPECT_EQ("lo 127.0.0.1\n", listed());

    addInterfaces(1, 3);
    EXPECT_EQ("lo 127.0.0.1\nlo:1 127.0.1.1\nlo:2 127.0.1.2\nlo:3 127.0.1.3\n", listed());

    addInterfaces(4, 12);
    const std::string strTen = listed();
    EXPECT_NE(std::string::npos, strTen.find("lo:9 127.0.1.9\n")) << strTen;
    EXPECT_EQ(std::string::npos, strTen.find("lo:10 ")) << strTen;
}

TEST(SocketIfConf, HardwareAddressIsGivenByteForByte)
{
    ASSERT_EQ(0, system("ip link set dev lo address 02:1a:3b:5c:7d:9e"));
    std::vector<InterfaceRecord> vecRecord;

    ASSERT_EQ(0, Socket::getIfConf(vecRecord));

    ASSERT_FALSE(vecRecord.empty());
    EXPECT_EQ("lo", vecRecord[0].strName);
    EXPECT_EQ("02:1a:3b:5c:7d:9e", vecRecord[0].strHardwareAddress);
}

TEST(SocketIfConf, NoDescriptorIsLeftOpen)
{
    const size_t uBefore = openDescriptors("").size();

    (void)listed();

    EXPECT_EQ(uBefore, openDescriptors("").size());
}
