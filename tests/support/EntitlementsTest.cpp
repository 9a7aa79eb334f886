// SPDX-License-Identifier: Apache-2.0
// Entitlement rules: what a rule may say, whom it fits, what is no rule.
#include "support/Entitlements.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocols/KelvaneServiceProtocol.h"
#include "tests/harness/OperationTest.h"

namespace kelvane::test {
namespace {

using simulated::PeerTraits;

constexpr char etcDirectory[] = "/etc/kelvane/entitlements.d/";
constexpr char usrDirectory[] = "/usr/lib/kelvane/entitlements.d/";

std::string text(const std::string& key, const std::string& value) {
  return "<key>" + key + "</key><string>" + value + "</string>";
}

std::string raw(const std::string& key, const std::string& xml) {
  return "<key>" + key + "</key>" + xml;
}

/// A rule's dictionary that grants "X".
std::string granting(const std::string& conditions) {
  return "<dict>" + conditions + "<key>Entitlements</key><array><string>X</string></array></dict>";
}

const PeerTraits alice = {.pid = 7,
                          .uid = 1000,
                          .user = "alice",
                          .groups = {"staff", "50"},
                          .executable = "/usr/bin/tool",
                          .unit = "tool.service",
                          .label = "tool_t"};

class AnEntitlementRule : public OperationTest {
 protected:
  void write(const std::string& path, const std::string& contents) {
    simulation->files().write(path, "<plist>" + contents + "</plist>");
  }
  void write(const std::string& contents) { write(std::string(etcDirectory) + "rules.plist", contents); }

  /// A connection on whose other end this process is.
  static ipc::Connection connectionTo(const PeerTraits& traits) {
    const simulated::ActingAs process(traits);
    const auto listener = ipc::Listener::anonymous(KelvaneServiceProtocol::interface, [](const ipc::Request&) {});
    return ipc::Connection::toEndpoint(*listener.endpoint());
  }

  /// Whether the rules on disk grant this process the entitlements.
  static bool isGranted(const PeerTraits& traits, const std::vector<std::string>& entitlements = {"X"}) {
    setEntitlementRules(EntitlementRules::read());
    return connectionIsEntitled(connectionTo(traits), entitlements);
  }

  /// Whether alice is granted "X" by a rule with these conditions.
  bool isGrantedBy(const std::string& conditions) {
    write(granting(conditions));
    return isGranted(alice);
  }

  std::size_t refusals() {
    return log().count("EntitlementRules::read /etc/kelvane/entitlements.d/rules.plist holds no entitlement rule: ");
  }
};

TEST_F(AnEntitlementRule, IsNeededForEverything) {
  run([&] {
    EXPECT_FALSE(isGranted(PeerTraits{}));
    EXPECT_FALSE(isGranted(alice));
    EXPECT_TRUE(log().texts(3).empty());
  });
}

TEST_F(AnEntitlementRule, FitsAUserByNameOrNumber) {
  run([&] {
    EXPECT_TRUE(isGrantedBy(text("User", "alice")));
    EXPECT_TRUE(isGrantedBy(text("User", "1000")));
    EXPECT_TRUE(isGrantedBy(raw("User", "<integer>1000</integer>")));
    EXPECT_FALSE(isGrantedBy(text("User", "root")));
    EXPECT_FALSE(isGrantedBy(raw("User", "<integer>0</integer>")));
    EXPECT_FALSE(isGrantedBy(text("User", "")));
  });
}

TEST_F(AnEntitlementRule, FitsAGroupByNameOrNumber) {
  run([&] {
    EXPECT_TRUE(isGrantedBy(text("Group", "staff")));
    EXPECT_TRUE(isGrantedBy(raw("Group", "<integer>50</integer>")));
    EXPECT_FALSE(isGrantedBy(text("Group", "wheel")));
    EXPECT_FALSE(isGrantedBy(raw("Group", "<integer>51</integer>")));
  });
}

TEST_F(AnEntitlementRule, FitsAnExecutableAUnitOrALabel) {
  run([&] {
    EXPECT_TRUE(isGrantedBy(text("Executable", "/usr/bin/tool")));
    EXPECT_FALSE(isGrantedBy(text("Executable", "/usr/bin/other")));
    EXPECT_TRUE(isGrantedBy(text("Unit", "tool.service")));
    EXPECT_FALSE(isGrantedBy(text("Unit", "other.service")));
    EXPECT_TRUE(isGrantedBy(text("Label", "tool_t")));
    EXPECT_FALSE(isGrantedBy(text("Label", "other_t")));
  });
}

TEST_F(AnEntitlementRule, FitsOnlyWhenAllItsConditionsDo) {
  run([&] {
    const std::vector<std::string> keys = {"User", "Group", "Executable", "Unit", "Label"};
    const std::vector<std::string> values = {"alice", "staff", "/usr/bin/tool", "tool.service", "tool_t"};
    const auto conditions = [&](std::size_t wrong) {
      std::string all;
      for (std::size_t i = 0; i < keys.size(); ++i) {
        all += text(keys[i], i == wrong ? "other" : values[i]);
      }
      return all;
    };
    EXPECT_TRUE(isGrantedBy(conditions(keys.size())));
    for (std::size_t wrong = 0; wrong < keys.size(); ++wrong) {
      EXPECT_FALSE(isGrantedBy(conditions(wrong))) << keys[wrong];
    }
  });
}

TEST_F(AnEntitlementRule, GrantsOnlyWhatItNames) {
  run([&] {
    write(granting(text("User", "alice")));
    EXPECT_TRUE(isGranted(alice, {"X"}));
    EXPECT_FALSE(isGranted(alice, {"Y"}));
    EXPECT_FALSE(isGranted(alice, {"x"}));
    EXPECT_FALSE(isGranted(alice, {""}));
  });
}

TEST_F(AnEntitlementRule, MayGrantNothing) {
  run([&] {
    write("<dict>" + text("User", "alice") + "</dict>");
    EXPECT_FALSE(isGranted(alice));
    EXPECT_EQ(refusals(), 0u);
  });
}

TEST_F(AnEntitlementRule, NeedNotGrantAloneWhatSeveralGrantTogether) {
  run([&] {
    write("<array>" + granting(text("User", "alice")) + "<dict>" + text("Group", "staff") +
          "<key>Entitlements</key><array><string>Y</string><string>Z</string></array></dict></array>");
    EXPECT_TRUE(isGranted(alice, {"X", "Y", "Z"}));
    EXPECT_FALSE(isGranted(alice, {"X", "Y", "W"}));
    PeerTraits other = alice;
    other.groups = {};
    EXPECT_TRUE(isGranted(other, {"X"}));
    EXPECT_FALSE(isGranted(other, {"X", "Y"}));
    EXPECT_FALSE(isGranted(other, {"Y", "X"}));
  });
}

TEST_F(AnEntitlementRule, WithoutAConditionGrantsNothing) {
  run([&] {
    EXPECT_FALSE(isGrantedBy(""));
    EXPECT_EQ(refusals(), 1u);
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"EntitlementRules::read /etc/kelvane/entitlements.d/rules.plist holds no "
                                       "entitlement rule: { Entitlements = ( X ); }"});
  });
}

TEST_F(AnEntitlementRule, WithAnUnknownKeyGrantsNothing) {
  run([&] {
    EXPECT_FALSE(isGrantedBy(text("User", "alice") + text("Host", "here")));
    EXPECT_FALSE(isGrantedBy(text("User", "alice") + text("user", "alice")));
    EXPECT_EQ(refusals(), 2u);
  });
}

TEST_F(AnEntitlementRule, WithAConditionOfAnotherTypeGrantsNothing) {
  run([&] {
    const std::vector<std::string> wrong = {
        raw("User", "<array><string>alice</string></array>"),
        raw("User", "<real>1000</real>"),
        raw("User", "<true/>"),
        raw("Group", "<true/>"),
        raw("Group", "<dict/>"),
        raw("Executable", "<integer>1</integer>"),
        raw("Unit", "<integer>1</integer>"),
        raw("Unit", "<true/>"),
        raw("Label", "<data></data>"),
    };
    for (const std::string& condition : wrong) {
      // The other condition fits, so the one that is not understood must not just be left out.
      const std::string fits =
          condition.find("User") == std::string::npos ? text("User", "alice") : text("Group", "staff");
      EXPECT_FALSE(isGrantedBy(fits + condition)) << condition;
    }
    EXPECT_EQ(refusals(), wrong.size());
  });
}

// <true/> as a user must not be read as the number 1.
TEST_F(AnEntitlementRule, TakesABooleanForNoNumber) {
  run([&] {
    write(granting(raw("User", "<true/>")));
    EXPECT_FALSE(isGranted(PeerTraits{.uid = 1, .user = "daemon"}));
    write(granting(raw("User", "<false/>")));
    EXPECT_FALSE(isGranted(PeerTraits{}));
  });
}

TEST_F(AnEntitlementRule, WhoseEntitlementsAreNoArrayOfStringsGrantsNothing) {
  run([&] {
    const auto withEntitlements = [&](const std::string& xml) {
      write("<dict>" + text("User", "alice") + raw("Entitlements", xml) + "</dict>");
      return isGranted(alice);
    };
    EXPECT_FALSE(withEntitlements("<string>X</string>"));
    EXPECT_FALSE(withEntitlements("<array><string>X</string><integer>1</integer></array>"));
    EXPECT_FALSE(withEntitlements("<dict><key>X</key><true/></dict>"));
    EXPECT_EQ(refusals(), 3u);
  });
}

TEST_F(AnEntitlementRule, ThatIsNoneDoesNotAffectTheOthersOfItsFile) {
  run([&] {
    write("<array><string>text</string>" + granting("") + granting(text("User", "alice")) + "</array>");
    EXPECT_TRUE(isGranted(alice));
    EXPECT_EQ(refusals(), 2u);
  });
}

TEST_F(AnEntitlementRule, FileOfAnotherTypeHoldsNone) {
  run([&] {
    write("<string>X</string>");
    EXPECT_FALSE(isGranted(alice));
    EXPECT_EQ(refusals(), 1u);
  });
}

TEST_F(AnEntitlementRule, IsReadFromFilesWithThatEndingOnly) {
  run([&] {
    const std::string rule = granting(text("User", "alice"));
    for (const char* name : {"a.plist~", "a.plist.bak", "a.plist.dpkg-old", "#a.plist#", ".a.plist", ".#a.plist",
                             "a.conf", "plist", "old/a.plist", ".old/a.plist"}) {
      write(std::string(etcDirectory) + name, rule);
    }
    EXPECT_FALSE(isGranted(alice));
    EXPECT_TRUE(log().texts(3).empty());
    write(std::string(etcDirectory) + "a.plist", rule);
    EXPECT_TRUE(isGranted(alice));
  });
}

TEST_F(AnEntitlementRule, InAnUnreadableFileIsLoggedAndGrantsNothing) {
  run([&] {
    write(std::string(etcDirectory) + "a.plist", granting(text("User", "alice")));
    simulation->files().makeUnreadable(std::string(etcDirectory) + "a.plist", "Permission denied");
    simulation->files().write(std::string(etcDirectory) + "b.plist", "<plist><dict>");
    EXPECT_FALSE(isGranted(alice));
    const std::vector<std::string> texts = log().texts(3);
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0],
              "EntitlementRules::read unable to read /etc/kelvane/entitlements.d/a.plist: Permission denied; it grants "
              "nothing");
    EXPECT_EQ(texts[1].find("EntitlementRules::read unable to read /etc/kelvane/entitlements.d/b.plist: "), 0u);
  });
}

TEST_F(AnEntitlementRule, InADirectoryThatCannotBeListedGrantsNothingAndTheOthersDo) {
  run([&] {
    write(std::string(usrDirectory) + "a.plist", granting(text("User", "alice")));
    simulation->files().makeLink("/etc/kelvane", "/nowhere");
    EXPECT_TRUE(isGranted(alice));
    EXPECT_EQ(log().texts(3),
              std::vector<std::string>{"EntitlementRules::read unable to list /etc/kelvane/entitlements.d: A symbolic "
                                       "link leads nowhere; it counts as empty"});
    log().clear();
    simulation->files().makeUnreadable("/usr/lib/kelvane/entitlements.d", "Input/output error");
    EXPECT_FALSE(isGranted(alice));
    EXPECT_EQ(log().texts(3).size(), 2u);
  });
}

TEST_F(AnEntitlementRule, OfTheSystemIsReadBeforeTheAdministrators) {
  run([&] {
    write(std::string(etcDirectory) + "a.plist", "<string>1</string>");
    write(std::string(usrDirectory) + "z.plist", "<string>2</string>");
    write(std::string(usrDirectory) + "b.plist", granting(text("User", "alice")));
    EXPECT_TRUE(isGranted(alice));
    EXPECT_EQ(log().texts(3),
              (std::vector<std::string>{
                  "EntitlementRules::read /usr/lib/kelvane/entitlements.d/z.plist holds no entitlement rule: 2",
                  "EntitlementRules::read /etc/kelvane/entitlements.d/a.plist holds no entitlement rule: 1"}));
  });
}

TEST_F(AnEntitlementRule, OfTheSystemGivesWayToAnAdministratorsFileOfItsName) {
  run([&] {
    write(std::string(usrDirectory) + "a.plist", granting(text("User", "alice")));
    EXPECT_TRUE(isGranted(alice));
    write(std::string(etcDirectory) + "a.plist", "<array/>");
    EXPECT_FALSE(isGranted(alice));
    simulation->files().makeUnreadable(std::string(etcDirectory) + "a.plist", "Not a regular file");
    EXPECT_FALSE(isGranted(alice));
    simulation->files().remove(std::string(etcDirectory) + "a.plist");
    write(std::string(etcDirectory) + "a.plist~", "<array/>");
    EXPECT_TRUE(isGranted(alice));
  });
}

std::string names(const std::string& key, const std::vector<std::string>& values) {
  std::string xml;
  for (const std::string& value : values) {
    xml += "<string>" + value + "</string>";
  }
  return raw(key, "<array>" + xml + "</array>");
}

class ARestrictedRule : public AnEntitlementRule {
 protected:
  /// Whether alice may make a call, as the rules on disk have it.
  static bool isAllowed(const RuledCall& call, const PeerTraits& traits = alice) {
    setEntitlementRules(EntitlementRules::read());
    return peerMayCall(connectionTo(traits).peer(), call);
  }
  bool isAllowedBy(const std::string& restriction, const RuledCall& call) {
    write(granting(text("User", "alice") + restriction));
    return isAllowed(call);
  }
};

TEST_F(ARestrictedRule, AllowsTheMembersThatItNames) {
  run([&] {
    const std::string restriction = names("Members", {"clientPurge", "clientCancelPurge"});
    EXPECT_TRUE(isAllowedBy(restriction, {.member = "clientPurge"}));
    EXPECT_TRUE(isAllowedBy(restriction, {.member = "clientCancelPurge"}));
    EXPECT_FALSE(isAllowedBy(restriction, {.member = "clientGetState", .stateKey = "a"}));
    EXPECT_FALSE(isAllowedBy(names("Members", {}), {.member = "clientPurge"}));
  });
}

TEST_F(ARestrictedRule, AllowsTheIdentifiersThatItsPatternsFit) {
  run([&] {
    const std::string restriction = names("Identifiers", {"com.example.*", "one"});
    const auto checkin = [](std::string_view identifier) {
      return RuledCall{.member = "clientCheckin", .identifier = identifier};
    };
    EXPECT_TRUE(isAllowedBy(restriction, checkin("com.example.cache")));
    EXPECT_TRUE(isAllowedBy(restriction, checkin("one")));
    EXPECT_FALSE(isAllowedBy(restriction, checkin("com.other.cache")));
    EXPECT_FALSE(isAllowedBy(restriction, checkin("")));
    EXPECT_TRUE(isAllowedBy(restriction, {.member = "clientPurge"}));
    EXPECT_TRUE(isAllowedBy(restriction, {.member = "clientSetState", .stateKey = "a"}));
  });
}

TEST_F(ARestrictedRule, AllowsTheStateKeysThatItsPatternsFit) {
  run([&] {
    const std::string restriction = names("StateKeys", {"mine?"});
    for (const char* member : {"clientSetState", "clientGetState"}) {
      EXPECT_TRUE(isAllowedBy(restriction, {.member = member, .stateKey = "mine1"}));
      EXPECT_FALSE(isAllowedBy(restriction, {.member = member, .stateKey = "mine"}));
      EXPECT_FALSE(isAllowedBy(restriction, {.member = member, .stateKey = "KELVANE_USER_DEFAULTS"}));
    }
    EXPECT_TRUE(isAllowedBy(restriction, {.member = "clientCheckin", .identifier = "a"}));
  });
}

TEST_F(ARestrictedRule, LeavesOutNothingThatAnotherRuleAllows) {
  run([&] {
    write("<array>" + granting(text("User", "alice") + names("Members", {"clientPurge"})) +
          granting(text("Group", "staff")) + "</array>");
    EXPECT_TRUE(isAllowed({.member = "clientPurge"}));
    EXPECT_TRUE(isAllowed({.member = "clientCancelPurge"}));
    PeerTraits other = alice;
    other.groups = {};
    EXPECT_TRUE(isAllowed({.member = "clientPurge"}, other));
    EXPECT_FALSE(isAllowed({.member = "clientCancelPurge"}, other));
  });
}

TEST_F(ARestrictedRule, AddsNothingToACallWhoseRestrictionsNoRuleMeetsAlone) {
  run([&] {
    write("<array>" +
          granting(text("User", "alice") + names("Members", {"clientSetState"}) + names("StateKeys", {"a"})) +
          granting(text("User", "alice") + names("Members", {"clientGetState"}) + names("StateKeys", {"b"})) +
          "</array>");
    EXPECT_TRUE(isAllowed({.member = "clientSetState", .stateKey = "a"}));
    EXPECT_TRUE(isAllowed({.member = "clientGetState", .stateKey = "b"}));
    EXPECT_FALSE(isAllowed({.member = "clientSetState", .stateKey = "b"}));
    EXPECT_FALSE(isAllowed({.member = "clientGetState", .stateKey = "a"}));
  });
}

TEST_F(ARestrictedRule, ThatIsNotUnderstoodGrantsNothing) {
  run([&] {
    for (const std::string& restriction :
         {names("Members", {"clientPurge", "clientPuge"}), raw("Members", "<string>clientPurge</string>"),
          raw("Identifiers", "<array><integer>1</integer></array>"), raw("StateKeys", "<dict/>")}) {
      EXPECT_FALSE(isGrantedBy(text("User", "alice") + restriction)) << restriction;
    }
    EXPECT_EQ(refusals(), 4u);
  });
}

TEST_F(ARestrictedRule, LetsAServiceServeUnderTheIdentifiersThatItsPatternsFit) {
  run([&] {
    const auto serves = [&](const std::string& entitlements) {
      write("<dict>" + text("User", "alice") + "<key>Entitlements</key><array>" + entitlements + "</array>" +
            names("Identifiers", {"com.example.*"}) + "</dict>");
      setEntitlementRules(EntitlementRules::read());
      const ipc::Peer peer = connectionTo(alice).peer();
      return std::pair(peerMayServe(peer, "com.example.a"), peerMayServe(peer, "com.other.a"));
    };
    const std::string client = "<string>CLIENT_ENTITLEMENT</string>";
    const std::string service = "<string>SERVICE_ENTITLEMENT</string>";
    EXPECT_EQ(serves(client + service), std::pair(true, false));
    EXPECT_EQ(serves(client), std::pair(false, false));
    EXPECT_EQ(serves(service), std::pair(false, false));
  });
}

TEST_F(AnEntitlementRule, HoldsUntilTheRulesAreReadAnew) {
  run([&] {
    write(granting(text("User", "alice")));
    setEntitlementRules(EntitlementRules::read());
    simulation->files().remove(std::string(etcDirectory) + "rules.plist");
    EXPECT_TRUE(connectionIsEntitled(connectionTo(alice), {"X"}));
    EXPECT_FALSE(isGranted(alice));
  });
}

}  // namespace
}  // namespace kelvane::test
