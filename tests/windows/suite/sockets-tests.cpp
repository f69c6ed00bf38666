// The kernel sockets, exported by the framework's driver.
#include "suite.h"

using namespace suite;

namespace
{

// The driver starts only when all that it tries answers as it should.
TEST(life, ExportsTheKernelSockets)
{
    Service filter(L"ndisfilter");
    filter.Start();
    Service probe(L"socket-probe");
    probe.Start();
    probe.Stop();
    filter.Stop();
}

} // namespace
