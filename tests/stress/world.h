// What the threads share of the framework, what goes through it, and arguments of rows for it.
#pragma once

#include "row.h"

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <support/faults.h>
#include <support/frames.h>

namespace stress
{

inline constexpr uint32_t kAdapters = 4;
inline constexpr ULONG kTag = 0x73727453;                         // "Strs"
inline constexpr uint32_t kOwnCode = NDIS_FILTER_CTL_CODE(0x7FF); // of the handlers of clients

inline std::atomic<FilterAdapter*> g_adapters[kAdapters]; // not null; some are closed, or removed
inline constexpr auto AnyAdapter = [] { return g_adapters[Dice().Below(kAdapters)].load(); };
void ReplaceAdapter(uint32_t index); // removes one and adds one with its name and address
hook::AdapterOptions AdapterOptionsOf(uint32_t index);

// A control request of a program that does nothing else.
machine::Request::Result AskOnce(uint32_t code, std::span<const uint8_t> input = {},
                                 std::span<uint8_t> output = {});

// A frame of some kind, of any length that a packet holds.
support::Bytes AnyFrame();
// A packet of the hook driver with a frame in it; null without one.
FilterPacket* MakePacket(FilterAdapter* adapter);
// For this thread alone: one that was kept, or a new one; none when the hook driver has none.
Use TakePacket();
// Keeps a packet for somebody else, or gives it back.
void KeepPacket(FilterPacket* packet);

// Arguments: null is refused, and so is a handle that is none.
inline constexpr int64_t kNull = FILTER_ERROR_INVALID_ARGUMENT;
Argument Checked(Form form, Kind kind, int64_t null = kNull);
inline constexpr auto Live = [](Kind kind) { return Checked(Form::Live, kind); };
inline constexpr auto Own = [](Kind kind) { return Checked(Form::Own, kind); };
inline constexpr auto Ended = [](Kind kind) { return Checked(Form::Ended, kind); };
inline constexpr auto Owner = [] { return Checked(Form::Owner, kDriver); }; // of what is made or ended
inline constexpr auto Given = [](Kind kind) { return Handle(Form::Given, kind, kNull); };
inline constexpr auto New = [](Kind kind) { return Handle(Form::New, kind, kNull); };
inline constexpr auto Result = [](Kind kind) { return Handle(Form::Result, kind); };
inline constexpr auto Name = [] { return Handle(Form::Name, kKinds, kNull); };
inline constexpr auto Context = [] { return Handle(Form::Context, kKinds); };
inline constexpr auto Out = [](size_t size) { return Output(size, kNull); };
Argument Text();

} // namespace stress
