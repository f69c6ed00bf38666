// Connections of kernel clients: data both ways, refusals, resets, half-closed connections.
#include "tdi-test.h"

namespace
{

TEST_F(TdiTest, Smoke)
{
    echo::Server server;
    ASSERT_NE(server.tcpPort, 0);
    const echo::Pattern pattern;
    echo::Connection c;
    ASSERT_EQ(c.Open(), STATUS_SUCCESS);
    ASSERT_EQ(c.Connect(server.tcpPort), STATUS_SUCCESS);
    const uint64_t bytes = 1ull<<30;
    auto t0 = std::chrono::steady_clock::now();
    auto r = echo::ExchangeWaiting(c, pattern, bytes, 65536);
    printf("waiting %f\n", std::chrono::duration<double>(std::chrono::steady_clock::now()-t0).count());
    EXPECT_EQ(r.status, 0); EXPECT_EQ(r.received, bytes); EXPECT_TRUE(r.equal);
    t0 = std::chrono::steady_clock::now();
    echo::CallbackExchange x(c, pattern, bytes, 65536);
    r = x.Run();
    printf("callback %f\n", std::chrono::duration<double>(std::chrono::steady_clock::now()-t0).count());
    EXPECT_EQ(r.status, 0); EXPECT_EQ(r.received, bytes); EXPECT_TRUE(r.equal);
    c.Close();
}

} // namespace
