/*
 * The control device of loophook.sys, \\.\LoopHook: how a program drives its virtual adapters. Plain C.
 *
 * The adapters are loops: what the framework sends on one comes back as received on it, and ends when the
 * framework indicates it to the protocols.
 */
#ifndef LOOPHOOK_H
#define LOOPHOOK_H

#include <stdint.h>

#define LOOPHOOK_ADAPTERS 2
#define LOOPHOOK_FRAME_SIZE 1648 /* longest frame */

#define LOOPHOOK_CODE(Function) (0x80010000u | ((uint32_t)(Function) << 2))

/* Send the framework its binding requests with the given LoopBinding; they answer what it answers. */
#define LOOPHOOK_BIND LOOPHOOK_CODE(0x801)
#define LOOPHOOK_UNBIND LOOPHOOK_CODE(0x802)
/* Open or close an adapter; input: its number. */
#define LOOPHOOK_OPEN LOOPHOOK_CODE(0x803)
#define LOOPHOOK_CLOSE LOOPHOOK_CODE(0x804)
/* Hand a LoopFrame to the framework, as received from the adapter or as sent by a protocol. */
#define LOOPHOOK_RECEIVE LOOPHOOK_CODE(0x805)
#define LOOPHOOK_SEND LOOPHOOK_CODE(0x806)
/* Output: a LoopReport. */
#define LOOPHOOK_REPORT LOOPHOOK_CODE(0x807)
/*
 * Read and write the memory that the framework shares with a program, while it is shared: input a LoopWindow
 * and, to write, the bytes behind it; output of a read: the bytes. For systems that map no driver memory into
 * a program.
 */
#define LOOPHOOK_READ_SHARED LOOPHOOK_CODE(0x808)
#define LOOPHOOK_WRITE_SHARED LOOPHOOK_CODE(0x809)

/* A control code that the framework does not know and offers to the hook driver, which answers "loop". */
#define LOOPHOOK_FOREIGN_CODE 0x80002600u

typedef struct LoopBinding {
    uint32_t length; /* of the request's buffer, up to 168 */
    uint32_t size;   /* m_Size */
    uint16_t majorVersion;
    uint16_t minorVersion;
} LoopBinding;

typedef struct LoopFrame {
    uint32_t adapter;
    uint32_t length;
    uint8_t bytes[LOOPHOOK_FRAME_SIZE];
} LoopFrame;

typedef struct LoopAdapterReport {
    uint32_t toAdapter;   /* frames that the framework sent on it */
    uint32_t toProtocols; /* frames that the framework indicated for it */
    LoopFrame last;       /* the last of these */
} LoopAdapterReport;

typedef struct LoopReport {
    uint32_t bound;
    uint32_t packetsOut; /* packets that exist */
    uint32_t released;   /* packets that came back undelivered */
    LoopAdapterReport adapters[LOOPHOOK_ADAPTERS];
} LoopReport;

typedef struct LoopWindow {
    uint32_t offset; /* in MappedMemory */
    uint32_t length;
} LoopWindow;

#endif
