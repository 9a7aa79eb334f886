// SPDX-License-Identifier: Apache-2.0
// Described services, which the daemon connects to: whoever listens there need not be one.
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

#include "platform/linux/runtime/FileDescriptor.h"
#include "protocols/Keys.h"
#include "tests/hostile/HostileTest.h"
#include "tests/hostile/RawConnection.h"

namespace kelvane {
namespace {

using test::BusServer;
using test::Client;
using test::mebibyte;
using test::purgeOf;

constexpr char hostile[] = "com.example.hostile";

/// A service that a description names and a socket on which the test listens in its place.
class ANamedService : public test::HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    test::writeFile(std::string(test::descriptions) + hostile,
                    std::string("{ KELVANE_ID = \"") + hostile + "\"; KELVANE_SERVICES = (PURGE); }");
    expectServicesThatCannotBeCalled();
    startDaemon();
  }

  std::string path() const { return std::string(test::serviceSockets) + hostile; }
  void listenWith(int backlog) {
    socket_ = FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(socket_.get(), backlog), 0);
  }
  /// Waits until the daemon connects.
  test::RawConnection accepted() {
    return test::RawConnection(FileDescriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
  void stopListening() { socket_ = FileDescriptor(); }

  /// What a purge makes of it.
  static void expectNothingOfIt(Client& client) { EXPECT_EQ(client.nextResult()[keys::amountReported], Value(0)); }

 private:
  FileDescriptor socket_;
};

TEST_F(ANamedService, WhoseSocketIsMissingGivesNothing) {
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
}

TEST_F(ANamedService, WhoseSocketIsNoneGivesNothing) {
  test::writeFile(path(), "no socket");
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
  std::filesystem::remove(path());
  std::filesystem::create_directory(path());
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
}

TEST_F(ANamedService, ThatHangsUpAtOnceGivesNothing) {
  listenWith(10);
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
  accepted().close();
  expectNothingOfIt(client);
  stopListening();
}

TEST_F(ANamedService, ThatHangsUpDuringTheHandshakeGivesNothing) {
  listenWith(10);
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
  test::RawConnection connection = accepted();
  EXPECT_NE(connection.receive(), "");
  EXPECT_TRUE(connection.send("OK 0123456789abcdef"));
  connection.close();
  expectNothingOfIt(client);
  stopListening();
}

TEST_F(ANamedService, ThatSpeaksAnotherLanguageGivesNothing) {
  listenWith(10);
  for (const std::string& words :
       {std::string("HTTP/1.1 400 Bad Request\r\nServer: none\r\n\r\n"),
        std::string("REJECTED\r\nERROR\r\nREJECTED\r\n"), std::string(200'000, 'x'), std::string(200'000, '\0')}) {
    Client client;
    ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
    test::RawConnection connection = accepted();
    connection.send(words);
    EXPECT_TRUE(connection.ends());
    expectNothingOfIt(client);
  }
  stopListening();
}

TEST_F(ANamedService, ThatAcceptsAndSaysNothingCostsItsPassesTheirTime) {
  listenWith(10);
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
  const test::RawConnection connection = accepted();
  expectNothingOfIt(client);
  purgeForAnotherClient();
}

TEST_F(ANamedService, ThatShakesHandsWhenThePurgeHasEndedIsNotAskedForIt) {
  listenWith(10);
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
  BusServer service(accepted().release());
  expectNothingOfIt(client);
  // All that is left of the purge.
  const test::Message call = service.nextCall();
  ASSERT_TRUE(call);
  EXPECT_STREQ(sd_bus_message_get_member(call.get()), "serviceCancelPurge");
  EXPECT_TRUE(service.answer(call));
}

TEST_F(ANamedService, ThatDoesNotAcceptCostsItsPassesTheirTime) {
  listenWith(0);
  const FileDescriptor inTheQueue(test::connectedSocket(path()));
  EXPECT_EQ(Client().purge(purgeOf(mebibyte))[keys::amountReported], Value(0));
  purgeForAnotherClient();
}

TEST_F(ANamedService, ThatDiesIsConnectedToAnewForTheNextPurge) {
  listenWith(10);
  for (int life = 1; life <= 2; ++life) {
    Client client;
    ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte)));
    BusServer service(accepted().release());
    const test::Message call = service.nextCall();
    ASSERT_TRUE(call);
    service.close();
    expectNothingOfIt(client);
  }
  Client client;
  ASSERT_TRUE(client.send("clientPurge", purgeOf(mebibyte, {test::untilAnswered()})));
  BusServer service(accepted().release());
  service.answer(service.nextCall(), test::reply({{keys::amount, 5}}));
  EXPECT_EQ(client.nextResult()[keys::amountReported], Value(5));
  stopListening();
}

}  // namespace
}  // namespace kelvane
