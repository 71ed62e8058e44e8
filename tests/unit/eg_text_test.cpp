// The texts the PostgreSQL execution group reads and writes: its open string, and the gid
// that must give back the exact XID and rmid after a crash and stay within 199 bytes.
#include <gtest/gtest.h>

#include <cstring>

#include "eg.h"

namespace xajms::eg {
namespace {

XID makeXid(long format, std::string_view gtrid, std::string_view bqual) {
    XID xid{};
    xid.formatID = format;
    xid.gtrid_length = static_cast<long>(gtrid.size());
    xid.bqual_length = static_cast<long>(bqual.size());
    std::memcpy(xid.data, gtrid.data(), gtrid.size());
    std::memcpy(xid.data + gtrid.size(), bqual.data(), bqual.size());
    return xid;
}

TEST(EgGid, RoundTripsEveryXidUpToTheLargestWithinPostgresLimit) {
    const std::string binary("\0\xff\x80'\"\\%_", 8);
    const std::string all(64, '\xff');
    const struct {
        XID xid;
        int rmid;
    } cases[] = {
        {makeXid(4711, "g", ""), 1},
        {makeXid(0, binary, binary), 0},
        {makeXid(-2, all, all), -1},  // the largest XID, every bit set
        {makeXid(INT32_MIN, std::string(64, '\0'), std::string(63, 'q')), INT32_MAX},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.xid.formatID);
        const std::string gid = encodeGid(c.xid, groupTag("EG1"), c.rmid);
        ASSERT_FALSE(gid.empty());
        EXPECT_LE(gid.size(), kMaxGidLength);
        EXPECT_EQ(gid.find_first_not_of("xjABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                        "0123456789-_"),
                  std::string::npos);  // safe inside a quoted SQL literal
        EXPECT_TRUE(gid.starts_with(gidPrefix(groupTag("EG1"), c.rmid)));
        const auto back = decodeGid(gid);
        ASSERT_TRUE(back.has_value());
        EXPECT_EQ(std::tuple(back->group, back->rmid, back->xid.formatID, back->xid.gtrid_length,
                             back->xid.bqual_length),
                  std::tuple(groupTag("EG1"), c.rmid, c.xid.formatID, c.xid.gtrid_length,
                             c.xid.bqual_length));
        EXPECT_EQ(std::memcmp(back->xid.data, c.xid.data, sizeof c.xid.data), 0);
    }
    EXPECT_EQ(encodeGid(makeXid(1, all, all), 0, 0).size(), kMaxGidLength);
}

TEST(EgGid, RefusesWhatCannotBeABranchAndGidsItDidNotWrite) {
    XID tooLong = makeXid(1, "g", "");
    tooLong.gtrid_length = 65;
    for (const XID &xid :
         {makeXid(-1, "g", "b"), makeXid(1L << 40, "g", ""), makeXid(1, "", "b"), tooLong}) {
        EXPECT_EQ(encodeGid(xid, 1, 1), "");
    }
    const std::string good = encodeGid(makeXid(7, "abc", "de"), 1, 1);
    for (const std::string &gid :
         {std::string(), "xj" + good.substr(2, 20), "XJ" + good.substr(2), good + "=",
          good.substr(0, good.size() - 1) + "_", good.substr(0, 26) + "00" + good.substr(28),
          good.substr(0, 10) + "0000000G" + good.substr(18)}) {
        SCOPED_TRACE(gid);
        EXPECT_FALSE(decodeGid(gid).has_value());
    }
}

TEST(EgOpenString, ParsesTheDocumentedSyntaxAndNamesWhatIsWrong) {
    const struct {
        std::string text;
        const char *eg, *conninfo, *log;  // eg null: refused with the reason in log
    } cases[] = {
        {"eg=EG1 conninfo='dbname=orders host=/tmp/x'", "EG1", "dbname=orders host=/tmp/x", ""},
        {"  conninfo=dbname=a\teg=E log=/tmp/l ", "E", "dbname=a", "/tmp/l"},
        {R"(eg=E conninfo='password=\'a b\\\' dbname=x')", "E", R"(password='a b\' dbname=x)", ""},
        {"eg=E", nullptr, nullptr, "eg= and conninfo= are both required"},
        {"eg=E conninfo='dbname=x", nullptr, nullptr, "bad value for \"conninfo\""},
        {"eg=E conninfo=x user=y", nullptr, nullptr, "unknown key \"user\""},
        {"eg=E eg=F conninfo=x", nullptr, nullptr, "key \"eg\" given twice"},
        {"eg= conninfo=x", nullptr, nullptr, "bad value for \"eg\""},
        {"eg=E conninfo=x junk", nullptr, nullptr, "expected key=value at \"junk\""},
        {"eg=E conninfo='x'y", nullptr, nullptr, "bad value for \"conninfo\""},
        {"conninfo=x eg=" + std::string(128, 'n'), nullptr, nullptr,
         "eg= names more than 127 bytes"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::string why;
        const auto open = parseOpenString(c.text, why);
        if (c.eg == nullptr) {
            EXPECT_FALSE(open.has_value());
            EXPECT_EQ(why, c.log);
            continue;
        }
        ASSERT_TRUE(open.has_value()) << why;
        EXPECT_EQ(std::tie(open->eg, open->conninfo, open->log),
                  std::tuple(std::string(c.eg), std::string(c.conninfo), std::string(c.log)));
    }
}

}  // namespace
}  // namespace xajms::eg
