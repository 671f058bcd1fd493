#include "tools/ctl/CtlOptions.h"

#include <gtest/gtest.h>

namespace vexdctl {
namespace {

CtlOptions parsed(const std::vector<std::string>& args) {
  CtlOptions o;
  std::string error;
  EXPECT_TRUE(parseCtlArguments(args, o, error)) << error;
  return o;
}

std::string refused(const std::vector<std::string>& args) {
  CtlOptions o;
  std::string error;
  EXPECT_FALSE(parseCtlArguments(args, o, error));
  EXPECT_EQ(error.find('\n'), std::string::npos) << "one line";
  return error;
}

TEST(VexdctlArguments, ARequestWithoutParameterMeansTrue) {
  CtlOptions o = parsed({"reboot:"});
  EXPECT_EQ(o.service, "com.velmor.quillexdhelper");
  EXPECT_EQ(o.timeoutSeconds, 30);
  EXPECT_FALSE(o.json);
  ovix::Object expected = ovix::Object::makeDictionary();
  expected.setBool("reboot:", true);
  EXPECT_EQ(o.request, expected);
}

TEST(VexdctlArguments, AParameterIsJsonOfAnyOfTheRequestTypes) {
  EXPECT_EQ(*parsed({"deleteNvram:", R"("boot-args")"}).request.get("deleteNvram:"),
            ovix::Object::makeString("boot-args"));
  EXPECT_EQ(*parsed({"x:", "false"}).request.get("x:"), ovix::Object::makeBool(false));
  EXPECT_EQ(*parsed({"x:", "-12"}).request.get("x:"), ovix::Object::makeInt64(-12));
  const ovix::Object nested =
      *parsed({"writeNvram:", R"({"Name": "a", "Value": "b"})"}).request.get("writeNvram:");
  EXPECT_EQ(nested.getString("Value"), "b");
  EXPECT_NE(refused({"deleteNvram:", "boot-args"}).find("quotes"), std::string::npos);
}

TEST(VexdctlArguments, OptionsMayComeAnywhere) {
  CtlOptions o = parsed({"--json", "x:", "--timeout", "0.5", "--service", "svc.other"});
  EXPECT_TRUE(o.json);
  EXPECT_EQ(o.timeoutSeconds, 0.5);
  EXPECT_EQ(o.service, "svc.other");
  EXPECT_EQ(o.request.count(), 1u);
}

TEST(VexdctlArguments, AWholeMessageKeepsItsKeyOrder) {
  CtlOptions o =
      parsed({"--message", R"({"removeWorkContainer:": true, "prepareWorkContainer:": true})"});
  std::vector<std::string> keys;
  o.request.apply([&](const std::string& k, const ovix::Object&) {
    keys.push_back(k);
    return true;
  });
  EXPECT_EQ(keys, (std::vector<std::string>{"removeWorkContainer:", "prepareWorkContainer:"}));
}

TEST(VexdctlArguments, RefusesWhatCannotBeARequest) {
  refused({});
  refused({"--message", "[1]"});
  refused({"--message", "{}"});
  refused({"--message", "{\"a\": 1}", "extra:"});
  refused({"a:", "1", "2"});
  refused({"--timeout", "0", "a:"});
  refused({"--timeout", "soon", "a:"});
  refused({"--timeout"});
  refused({"--service"});
  EXPECT_NE(refused({"--verbose", "a:"}).find("--verbose"), std::string::npos);
}

}  // namespace
}  // namespace vexdctl
