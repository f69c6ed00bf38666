// An NDIS request as the hook driver lays it out behind the handle, with the few numbers that the flow meter needs. A
// hook driver comes with a header like this one.
#pragma once

#include <ntddk.h>

constexpr ULONG kQueryInformation = 0;
constexpr ULONG kOidTransmitted = 0x00020101; // OID_GEN_XMIT_OK
constexpr ULONG kOidReceived = 0x00020102;    // OID_GEN_RCV_OK

struct HookRequest {
    ULONG m_nType;              //  0  kQueryInformation
    ULONG m_nOid;               //  4
    PVOID m_pInformation;       //  8  buffer for the result
    ULONG m_nInformationLength; // 16  its bytes
    ULONG m_nBytesDone;         // 20  written by the hook driver, as are the next two
    ULONG m_nBytesNeeded;       // 24
    LONG m_nStatus;             // 28  0: success
    // Called when the request is answered, with the context of Filter_MakeNdisRequest: later on a thread of the hook
    // driver, or before that call returns. IRQL <= DISPATCH. The request is the client's again.
    VOID (*m_pfCompleted)(HookRequest* pRequest, PVOID pContext); // 32
    PVOID m_pReserved;                                            // 40
};
static_assert(sizeof(HookRequest) == 48);
