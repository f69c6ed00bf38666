// The transport of the host, loaded for a test and unloaded behind it. A test fails when it breaks a rule of
// the kernel that it did not ask for, or leaves anything behind.
#pragma once

#include <echo-client.h>

#include "support/eventually.h"
#include "support/host-socket.h"
#include "support/tdi-request.h"

#include <gmock/gmock.h>
#include <machine.h>

using support::HostSocket;

class TdiTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        machine::TakeViolations();
        machine::PrintViolations(false);
        before_ = machine::TakeCensus();
        ASSERT_EQ(machine::LoadTransport(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        machine::ClearFaults();
        machine::ClearTransportAnswers();
        machine::CheckReturnToUser("the end of the test");
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_EQ(machine::UnloadTransport(), STATUS_SUCCESS);
        EXPECT_THAT(BrokenRules(), testing::IsEmpty());
        const machine::Census after = machine::TakeCensus();
        EXPECT_TRUE(after == before_) << "left behind: " << machine::DescribeCensus(after)
                                      << "\nbefore: " << machine::DescribeCensus(before_);
        machine::PrintViolations(true);
    }
    static std::vector<std::string> BrokenRules()
    {
        std::vector<std::string> rules;
        for (const machine::Violation& violation : machine::TakeViolations()) {
            rules.push_back(violation.rule);
        }
        return rules;
    }

  private:
    machine::Census before_;
};

inline std::string TextOf(echo::Block& block, const IO_STATUS_BLOCK& result)
{
    return std::string(reinterpret_cast<char*>(block.Bytes()), result.Information);
}

// A block that holds the text.
struct TextBlock : echo::Block {
    explicit TextBlock(const std::string& text) : Block(text.size())
    {
        std::memcpy(Bytes(), text.data(), text.size());
    }
};

// A request of the test's own; it is freed when it has completed.
struct OwnRequest {
    KEVENT completed;
    IO_STATUS_BLOCK result = {};

    OwnRequest() { KeInitializeEvent(&completed, SynchronizationEvent, FALSE); }
    // For a file of the transport's, which gets it next; a receive with its memory.
    PIRP New(PFILE_OBJECT file, UCHAR minor, PMDL mdl = nullptr)
    {
        const PIRP irp = support::NewTdiRequest(file, minor);
        if (mdl != nullptr) {
            irp->MdlAddress = mdl;
            auto& parameters = IoGetNextIrpStackLocation(irp)->Parameters;
            reinterpret_cast<TDI_REQUEST_KERNEL_RECEIVE&>(parameters).ReceiveLength = MmGetMdlByteCount(mdl);
        }
        IoSetCompletionRoutine(irp, OnCompleted, this, TRUE, TRUE, TRUE);
        return irp;
    }
    void Wait() { KeWaitForSingleObject(&completed, Executive, KernelMode, FALSE, nullptr); }

  private:
    static NTSTATUS OnCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        const auto self = static_cast<OwnRequest*>(context);
        self->result = irp->IoStatus;
        IoFreeIrp(irp);
        KeSetEvent(&self->completed, 0, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
};

// An open address, and the addresses that its requests name.
struct Port {
    KS_TRANSPORT_ADDRESS address;
    TA_IP_ADDRESS peer = {};
    TDI_CONNECTION_INFORMATION to = {};
    NTSTATUS status;

    explicit Port(PCWSTR device, uint16_t peerPort = 0)
    {
        TA_IP_ADDRESS local = echo::Loopback(0);
        status = KS_OpenTransportAddress(device, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
        peer = echo::Loopback(peerPort);
        to.RemoteAddressLength = sizeof(peer);
        to.RemoteAddress = &peer;
    }
    ~Port() { KS_CloseTransportAddress(&address); }
    NTSTATUS Send(PMDL mdl)
    {
        return KS_SendDatagramOnAddress(&address, nullptr, nullptr, nullptr, nullptr, mdl, &to);
    }
    NTSTATUS Receive(PMDL mdl, IO_STATUS_BLOCK* result, PTDI_CONNECTION_INFORMATION from = nullptr)
    {
        return KS_ReceiveDatagramOnAddress(&address, nullptr, nullptr, nullptr, result, mdl, nullptr, from,
                                           TDI_RECEIVE_NORMAL);
    }
};
