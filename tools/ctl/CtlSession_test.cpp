#include "tools/ctl/CtlSession.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/TestSupport.h"

namespace vexdctl {
namespace {

// A stand-in service: per key, "pass:" reports progress then passes,
// "fail:" fails, "data:" sends data then passes, "silent:" answers nothing
// and "close:" hangs up.
class VexdctlSession : public ::testing::Test {
 protected:
  void SetUp() override {
    auto l = ovix::Listener::create("svc.ctl");
    ASSERT_TRUE(l) << l.error().description;
    listener_ = *l;
    listener_->setEventHandler([](const ovix::Object& event) {
      auto c = event.connectionValue();
      if (!c) return;
      c->setEventHandler([c](const ovix::Object& request) {
        request.apply([&](const std::string& key, const ovix::Object&) {
          auto reply = [&](const char* k, ovix::Object v) {
            ovix::Object m = ovix::Object::makeDictionary();
            m.set(k, std::move(v));
            c->send(m);
          };
          if (key == "pass:") {
            reply("Progress", ovix::Object::makeInt64(50));
            reply("Progress", ovix::Object::makeInt64(100));
            reply("Response", ovix::Object::makeBool(true));
          } else if (key == "fail:") {
            reply("Response", ovix::Object::makeBool(false));
          } else if (key == "data:") {
            reply("Data", ovix::Object::makeData(ovix::Bytes{0xCA, 0xFE}));
            reply("Response", ovix::Object::makeBool(true));
          } else if (key == "close:") {
            c->cancel();
            return false;
          }
          return true;
        });
      });
      c->resume();
    });
    listener_->resume();
  }

  int run(const std::vector<std::string>& args, bool bar = false) {
    CtlOptions options;
    std::string error;
    std::vector<std::string> all = {"--service", "svc.ctl", "--timeout", "0.3"};
    all.insert(all.end(), args.begin(), args.end());
    EXPECT_TRUE(parseCtlArguments(all, options, error)) << error;
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    ReplyPrinter printer(out, options.json, bar);
    const int status = runSession(options, printer, err);
    out_ = contents(out);
    err_ = contents(err);
    return status;
  }

  static std::string contents(std::FILE* f) {
    std::string text;
    std::rewind(f);
    for (int c; (c = std::fgetc(f)) != EOF;) text += static_cast<char>(c);
    std::fclose(f);
    return text;
  }

  ovix::testing::ScopedRuntimeDirectory dir_;
  std::shared_ptr<ovix::Listener> listener_;
  std::string out_;
  std::string err_;
};

TEST_F(VexdctlSession, EveryKeyPassing) {
  EXPECT_EQ(run({"pass:"}), kEveryKeyPassed);
  EXPECT_EQ(out_, "Progress 50\nProgress 100\nResponse pass\n");
  EXPECT_EQ(err_, "");
  EXPECT_EQ(run({"--message", R"({"data:": true, "pass:": {"a": 1}})"}), kEveryKeyPassed);
  EXPECT_EQ(out_, "Data cafe\nResponse pass\nProgress 50\nProgress 100\nResponse pass\n");
}

TEST_F(VexdctlSession, OneFailingKeyFailsTheRun) {
  EXPECT_EQ(run({"--message", R"({"fail:": true, "pass:": true})"}), kSomeKeyFailed);
  EXPECT_EQ(out_, "Response fail\nProgress 50\nProgress 100\nResponse pass\n");
}

TEST_F(VexdctlSession, SilenceOrAHangUpBeforeEveryAnswerIsItsOwnStatus) {
  EXPECT_EQ(run({"silent:"}), kServiceFellSilent);
  EXPECT_EQ(out_, "");
  EXPECT_EQ(err_, "vexdctl: svc.ctl fell silent after 0 of 1 responses\n");
  EXPECT_EQ(run({"--message", R"({"pass:": true, "silent:": true})"}), kServiceFellSilent);
  EXPECT_EQ(err_, "vexdctl: svc.ctl fell silent after 1 of 2 responses\n");
  EXPECT_EQ(run({"close:"}), kServiceFellSilent);
  EXPECT_EQ(err_, "vexdctl: svc.ctl closed the connection after 0 of 1 responses\n");
}

TEST_F(VexdctlSession, NoServiceMeansCannotConnect) {
  EXPECT_EQ(run({"--service", "svc.absent", "pass:"}), kCannotConnect);
  EXPECT_NE(err_.find("svc.absent"), std::string::npos);
  EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1);
}

TEST_F(VexdctlSession, JsonShowsOneObjectPerMessage) {
  EXPECT_EQ(run({"--json", "--message", R"({"data:": true, "fail:": true})"}), kSomeKeyFailed);
  EXPECT_EQ(out_, "{\"Data\": \"cafe\"}\n{\"Response\": true}\n{\"Response\": false}\n");
}

TEST_F(VexdctlSession, ATerminalSeesProgressAsABarOnOneLine) {
  EXPECT_EQ(run({"pass:"}, true), kEveryKeyPassed);
  const std::string half = "\rProgress [" + std::string(20, '#') + std::string(20, '-') + "]  50%";
  const std::string full = "\rProgress [" + std::string(40, '#') + "] 100%";
  EXPECT_EQ(out_, half + full + "\nResponse pass\n");
}

}  // namespace
}  // namespace vexdctl
