// What the rooms of framescope share.
#pragma once

#include "../support/sample.h"

struct Framescope {
    FilterDriver* Driver;
    PacketFilter* Filter;
    IoCtrlHandler* Control;
    EventHandler* Events;
    IfEventHandler* InterfaceEvents;
    FilterInterface* Interface;
    FilterTimer* Ticker;
    FilterTimer* Errand; // runs what must not be done at DISPATCH_LEVEL
    HashTable* Stations;
    UNICODE_STRING FrameworkKey; // the registry path of the framework; Buffer NULL: not known
    ULONG FrameworkFlag;         // its debug mask, as read last

    FilterLock Lock; // of the next two
    FilterPacket* Kept;
    UCHAR ErrandMac[6];

    volatile LONG WantedMedia; // the errand: a media state to force
    volatile LONG WantsFrame;  // the next received one is kept
    volatile LONG DumpNext;    // frames that are still to be dumped
    volatile LONG Known;       // stations
    volatile LONG Frames;
    volatile LONG Ipv6;
    volatile LONG BadChecksums;
    volatile LONG Opened;
    volatile LONG Published; // interfaces
    volatile LONG Ticks;
    volatile LONG Sent;
    volatile LONG CameBack;
};

extern Framescope scope;

// ---- adapters
// "adapters": all that is known of each. "adapter ID VERB [VALUE]": changes one.
VOID AnswerAdapters(Diag* pDiag);
VOID AnswerAdapter(Diag* pDiag);
// A timer's callback, at PASSIVE_LEVEL: forces the media state that "adapter ID media VALUE" asked for.
VOID RunErrand(FilterDriver* hFilterDriver, PVOID pDriverContext, FilterTimer* hTimer, PVOID pTimerContext);

// ---- system
// "system": versions and settings. "system reload" reads the framework's debug mask again.
VOID AnswerSystem(Diag* pDiag);
// At PASSIVE_LEVEL, with the driver's own registry path; FreeFrameworkKey when the driver ends.
VOID FindFrameworkKey(PUNICODE_STRING pOwnPath);
VOID FreeFrameworkKey();
