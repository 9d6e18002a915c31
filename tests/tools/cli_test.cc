// The qopci executable as a user runs it: a copy read back as CSV byte for byte, its JSON
// outputs, and the texts of its usage and farm errors.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "tests/support/run_tool.h"

namespace {

namespace fs = std::filesystem;

using qopci_test::RunQopci;
using qopci_test::ToolRun;

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(tmp_.path().empty());
    dir_ = tmp_.path();
    fs::permissions(dir_, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    farm_ = dir_ + "/farm";
  }

  std::string Write(const std::string& name, const std::string& text) {
    return qopci_test::WriteFile(dir_ + "/" + name, text);
  }

  qopci_test::TempDir tmp_{"qopci_cli"};
  std::string dir_, farm_;
};

TEST_F(CliTest, CopiedRowsReadBackAsTheirCsvAndAsJson) {
  const std::string manifest = Write("m.json", R"j({"table": "t", "columns": [
      {"name": "i", "type": "int"}, {"name": "ti", "type": "tinyint"},
      {"name": "si", "type": "smallint"}, {"name": "bi", "type": "bigint"},
      {"name": "d", "type": "double"}, {"name": "p", "type": "decimal(9,2)"},
      {"name": "q", "type": "decimal(18,4)"}, {"name": "ts", "type": "timestamp"}]})j");
  const std::string csv =
      "i,ti,si,bi,d,p,q,ts\n"
      "2147483647,127,32767,9223372036854775807,0.1,9999999.99,99999999999999.9999,"
      "2013-05-17 14:30:00\n"
      "-2147483647,-127,-32767,-9223372036854775807,-1.5,-0.05,-0.0001,2013-05-17 14:30:00.250\n"
      "0,0,1,42,123456.789,0.00,201.4900,1970-01-01 00:00:00.001\n"
      ",,,,,,,\n";
  ToolRun copy = RunQopci("copy --json --farm " + farm_ + " --manifest " + manifest + " --csv " +
                          Write("in.csv", csv));
  ASSERT_EQ(copy.status, 0) << copy.err;
  const nlohmann::json summary = nlohmann::json::parse(copy.out);
  EXPECT_EQ(summary["rows"], 4);
  ASSERT_EQ(summary["columns"].size(), 8u);
  EXPECT_EQ(summary["columns"][6]["name"], "t.q");
  EXPECT_EQ(summary["columns"][6]["type"], "decimal(18,4)");
  EXPECT_EQ(summary["columns"][6]["action"], "created");
  EXPECT_EQ(summary["columns"][6]["tail_bytes"], 32);
  EXPECT_TRUE(summary["columns"][6]["flags"].is_array());

  ToolRun back = RunQopci("inspect --rows --all --format csv --farm " + farm_);
  EXPECT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(back.out, csv);

  ToolRun json = RunQopci("inspect --farm " + farm_ +
                          " --column q --column ts --column bi --limit 2 " + "--format json");
  ASSERT_EQ(json.status, 0) << json.err;
  const nlohmann::json rows = nlohmann::json::parse(json.out);
  EXPECT_EQ(rows["table"], "t");
  EXPECT_EQ(rows["count"], 4);
  EXPECT_EQ(rows["columns"][2], (nlohmann::json{{"name", "bi"}, {"type", "bigint"}}));
  EXPECT_EQ(rows["rows"],
            nlohmann::json::parse(
                R"([["99999999999999.9999", "2013-05-17 14:30:00", 9223372036854775807],
                                  ["-0.0001", "2013-05-17 14:30:00.250", -9223372036854775807]])"));
  EXPECT_EQ(RunQopci("inspect --farm " + farm_ + " --table t --column ts --limit 9").out,
            "                     ts\n"
            "    2013-05-17 14:30:00\n"
            "2013-05-17 14:30:00.250\n"
            "1970-01-01 00:00:00.001\n"
            "                   NULL\n");
}

TEST_F(CliTest, ErrorsNameTheMistakeAndTheWayOut) {
  const std::string manifest =
      Write("m.json", R"({"table": "t", "columns": [{"name": "x", "type": "int"}]})");
  const std::string copy = "copy --generate 3 --manifest " + manifest + " --farm ";
  const std::string make = " --manifest FILE --csv FILE)\n";
  const bool root = geteuid() == 0;
  const struct {
    std::string name, args;
    std::function<void()> prepare;
    int status;
    std::string out, err;  // err: the whole of stderr
  } cases[] = {
      {"version", "--version", nullptr, 0, "qopci " QOPCI_VERSION "\n", ""},
      {"command", "inspct --farm x", nullptr, 1, "",
       "qopci: unknown command \"inspct\" (did you mean \"inspect\"?)\n"},
      {"option", "inspect --fram x", nullptr, 1, "",
       "qopci: unknown option \"--fram\" for inspect (did you mean \"--farm\"?)\n"},
      {"missing farm", "inspect --farm " + farm_, nullptr, 1, "",
       "qopci: no farm at " + farm_ + " (make one with: qopci copy --farm " + farm_ + make},
      {"missing parent", copy + farm_ + "/a/b", nullptr, 1, "",
       "qopci: no farm at " + farm_ + "/a/b, and its parent directory " + farm_ +
           "/a does not exist (create it, then: qopci copy --farm " + farm_ + "/a/b" + make},
      {"not a farm", copy + dir_, nullptr, 1, "",
       "qopci: " + dir_ + " is not a farm (it has no catalog) and is not empty: give --init to " +
           "make a farm in it, or choose a new or empty directory\n"},
      {"not a farm --init", copy + dir_ + " --init", nullptr, 0, "", ""},
      {"half-made farm", copy + farm_,
       [&] {
         fs::create_directories(farm_ + "/bat/00");
         qopci_test::WriteFile(farm_ + "/lock", "1\n");
       },
       0, "", ""},
      // A user who may not write the farm: nobody when this runs as root.
      {"permission", copy + farm_ + " --json",
       [&] {
         ASSERT_EQ(RunQopci(copy + farm_).status, 0);
         if (!root) fs::permissions(farm_ + "/lock", fs::perms::owner_read);
       },
       1,
       "{\"error\":\"cannot open the lock file " + farm_ +
           "/lock: Permission denied\",\"detail\":\"IOException:CVDfarm_open:cannot open the "
           "lock file " +
           farm_ + "/lock: Permission denied (errno 13)\"}\n",
       "qopci: cannot open the lock file " + farm_ + "/lock: Permission denied\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(farm_);
    fs::remove(dir_ + "/catalog");
    if (c.prepare) c.prepare();
    const bool as_nobody = root && c.name == "permission";
    if (as_nobody && system("command -v setpriv >/dev/null") != 0) continue;
    ToolRun r =
        RunQopci(c.args, as_nobody ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "");
    EXPECT_EQ(r.status, c.status) << r.err;
    if (c.status == 0 && c.out.empty()) continue;  // a copy's summary
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_TRUE(fs::exists(dir_ + "/m.json"));  // --init left the directory's files alone
}

}  // namespace
