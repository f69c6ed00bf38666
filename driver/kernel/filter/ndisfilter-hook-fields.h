// The function fields of the binding record with their names, for who copies, clears or prints them.
#pragma once

#include "ndisfilter-atomic.h"

// Calls visit(name, pointer to member) for the framework's callbacks, in record order.
template <class Visit>
VOID ForEachCallback(const Visit& visit)
{
    visit("Filter_AdapterOpened", &NdisHookAPI::Filter_AdapterOpened);
    visit("Filter_AdapterStatusChanged", &NdisHookAPI::Filter_AdapterStatusChanged);
    visit("Filter_AdapterClosed", &NdisHookAPI::Filter_AdapterClosed);
    visit("Filter_FilterReceivedPacket", &NdisHookAPI::Filter_FilterReceivedPacket);
    visit("Filter_FilterSendPacket", &NdisHookAPI::Filter_FilterSendPacket);
}

// The same for the hook driver's functions.
template <class Visit>
VOID ForEachHookFunction(const Visit& visit)
{
    visit("Hook_GetOsVersion", &NdisHookAPI::Hook_GetOsVersion);
    visit("Hook_HandleIoControl", &NdisHookAPI::Hook_HandleIoControl);
    visit("Hook_AllocatePacket", &NdisHookAPI::Hook_AllocatePacket);
    visit("Hook_FreePacket", &NdisHookAPI::Hook_FreePacket);
    visit("Hook_InjectPacketToAdapter", &NdisHookAPI::Hook_InjectPacketToAdapter);
    visit("Hook_InjectPacketToProtocol", &NdisHookAPI::Hook_InjectPacketToProtocol);
    visit("Hook_AllocateRequest", &NdisHookAPI::Hook_AllocateRequest);
    visit("Hook_MakeNdisRequest", &NdisHookAPI::Hook_MakeNdisRequest);
    visit("Hook_FreeRequest", &NdisHookAPI::Hook_FreeRequest);
    visit("Hook_SetAdapterStatus", &NdisHookAPI::Hook_SetAdapterStatus);
    visit("Hook_GetAdapterStatus", &NdisHookAPI::Hook_GetAdapterStatus);
    visit("Hook_GetTcpIpBoundAdapters", &NdisHookAPI::Hook_GetTcpIpBoundAdapters);
    visit("Hook_MmMapLockedPages", &NdisHookAPI::Hook_MmMapLockedPages);
    visit("Hook_MmUnmapLockedPages", &NdisHookAPI::Hook_MmUnmapLockedPages);
}

// Calls visit(name, value) for the version fields of the framework's own record and then for all functions.
template <class Visit>
VOID ForEachVersionAndFunction(const NdisHookAPI& api, const Visit& visit)
{
    const auto visitNumber = [&](PCSTR name, ULONG_PTR value) {
        visit(name, reinterpret_cast<PVOID>(value));
    };
    const auto visitFunction = [&](PCSTR name, auto field) {
        visit(name, reinterpret_cast<PVOID>(LoadAcquire(api.*field)));
    };
    visitNumber("m_MajorVersion", api.m_MajorVersion);
    visitNumber("m_MinorVersion", api.m_MinorVersion);
    ForEachCallback(visitFunction);
    ForEachHookFunction(visitFunction);
}

// The same for all its fields.
template <class Visit>
VOID ForEachHookField(const NdisHookAPI& api, const Visit& visit)
{
    visit("m_Size", reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(api.m_Size)));
    visit("m_Flags", reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(LoadAcquire(api.m_Flags))));
    ForEachVersionAndFunction(api, visit);
}
