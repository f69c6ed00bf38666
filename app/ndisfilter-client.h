/*
 * NdisFilter: the client library. Control requests and the shared rings for user programs, on Windows and against a
 * running lab. Plain C; ndisfilter-client.hpp is a C++ layer over it.
 *
 * Every function that can fail returns an NTSTATUS: negative values are failures, NDISFILTER_SUCCESS is success, and
 * NDISFILTER_TIMEOUT (positive) means that the time was up. Those of the driver are passed on as they are; a function
 * lists those that it adds itself. ndisfilter_status_name and ndisfilter_status_meaning put them into words. All
 * functions answer NDISFILTER_INVALID_PARAMETER for a null pointer, NDISFILTER_BAD_ANSWER when the driver's answer is
 * not what the request is laid down to return, and NDISFILTER_NO_RESOURCES when the program has no memory or thread
 * left. Outputs are written on success only, unless said otherwise. Identifiers of adapters count from 1.
 *
 * A client may be used from several threads at once; calls of the same kind (sending, receiving) then follow one
 * another. ndisfilter_close must be the last call.
 */
#ifndef NDISFILTER_CLIENT_H
#define NDISFILTER_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "ndisfilter-user.h"

#ifdef __cplusplus
extern "C" {
#endif

#define NDISFILTER_SUCCESS ((int32_t)0)
#define NDISFILTER_TIMEOUT ((int32_t)0x00000102)            /* the time was up */
#define NDISFILTER_NO_EVENT ((int32_t)0x8000001A)           /* no event is waiting */
#define NDISFILTER_DIAG_BUSY ((int32_t)0x80000011)          /* another diagnostic is running */
#define NDISFILTER_BAD_ANSWER ((int32_t)0xC0000004)         /* the answer has another length than laid down */
#define NDISFILTER_INVALID_PARAMETER ((int32_t)0xC000000D)  /* an argument is out of range, or null */
#define NDISFILTER_BAD_RING ((int32_t)0xC000003E)           /* the driver's index of a ring is none */
#define NDISFILTER_SHARE_TAKEN ((int32_t)0xC0000043)        /* another handle has the share, or mapping failed */
#define NDISFILTER_NO_RESOURCES ((int32_t)0xC000009A)       /* out of memory or threads */
#define NDISFILTER_CANCELLED ((int32_t)0xC0000120)          /* ndisfilter_cancel_receive was called */
#define NDISFILTER_NO_SHARE ((int32_t)0xC0000184)           /* no share is started, or it was stopped meanwhile */
#define NDISFILTER_BAD_FRAME_SIZE ((int32_t)0xC0000206)     /* a frame is empty or longer than a block holds */

#define NDISFILTER_FOREVER UINT32_MAX /* as a time-out in milliseconds: wait without limit */

typedef struct ndisfilter_client ndisfilter_client;

/* The name of a status, for instance "STATUS_NOT_SUPPORTED"; "unknown status" for one that the library lacks. */
const char* ndisfilter_status_name(int32_t status);
/* What it means in a few words; "" for one that the library lacks. */
const char* ndisfilter_status_meaning(int32_t status);

/* ------------------------------------------------------------------------------------------------------- the handle */

/*
 * Opens the control device. `name`: null or "" for the default, which is \\.\NdisFilter on Windows and the socket of
 * the running lab elsewhere. Returns null on failure; then `message` (may be null), of `message_size` bytes, says in
 * one line what failed and what to do. The caller ends the client with ndisfilter_close.
 */
ndisfilter_client* ndisfilter_open(const char* name, char* message, size_t message_size);

/* Stops the share, closes the handle and frees the client; null is harmless. No other call may be running. */
void ndisfilter_close(ndisfilter_client* client);

/*
 * Any control request, for the control codes of hook and client drivers. `*returned` (may be null) is the number of
 * output bytes, also on failure. Waits until the request is complete.
 */
int32_t ndisfilter_control(ndisfilter_client* client, uint32_t code, const void* input, size_t input_size,
                           void* output, size_t output_size, size_t* returned);

/* --------------------------------------------------------------------------------------------------------- requests */

/* Success when the driver answers. Its version does not reach the program, the request reports no bytes. */
int32_t ndisfilter_get_version(ndisfilter_client* client);

/* The adapters that are bound to TCP/IP; at most 32, their names zero-terminated. */
int32_t ndisfilter_get_adapters(ndisfilter_client* client, UserAdapterList* adapters);

/* The identifier of the adapter with this current MAC address. */
int32_t ndisfilter_find_adapter(ndisfilter_client* client, const uint8_t mac[6], uint32_t* adapter_id);

/* The counts of a configuration are as somebody set them: they may exceed 8. */
int32_t ndisfilter_get_ipconfig(ndisfilter_client* client, uint32_t adapter_id, UserIPConfig* config);

/* INVALID_PARAMETER also for a count above 8. The driver computes the broadcast addresses. */
int32_t ndisfilter_set_ipconfig(ndisfilter_client* client, const UserIPConfig* config);

/* Media state as the hook driver means it, of the adapter with this current MAC address. */
int32_t ndisfilter_get_media_state(ndisfilter_client* client, const uint8_t mac[6], uint8_t* state);
int32_t ndisfilter_set_media_state(ndisfilter_client* client, const uint8_t mac[6], uint8_t state);

/* Whether the packets of the adapter with this current MAC address are printed to the debugger: 0 or not 0. */
int32_t ndisfilter_get_packet_dump(ndisfilter_client* client, const uint8_t mac[6], uint8_t* enabled);
int32_t ndisfilter_set_packet_dump(ndisfilter_client* client, const uint8_t mac[6], uint8_t enabled);

/* Takes the oldest event. NO_EVENT: none is waiting. */
int32_t ndisfilter_get_event(ndisfilter_client* client, UserEvent* event);

/* Drops all events. */
int32_t ndisfilter_clear_events(ndisfilter_client* client);

/* The capture logs of all adapters. The driver opens and closes the files later, and tells nobody when that fails. */
int32_t ndisfilter_start_capture(ndisfilter_client* client);
int32_t ndisfilter_stop_capture(ndisfilter_client* client);

/* Has the driver read its debug mask from the registry again. */
int32_t ndisfilter_reload_debug_flag(ndisfilter_client* client);

/* The limit of queued injected packets, which the driver keeps and shows. */
int32_t ndisfilter_set_congestion_limit(ndisfilter_client* client, uint32_t packets);

/* Has the driver print its whole state to the debugger. */
int32_t ndisfilter_dump_state(ndisfilter_client* client);

/*
 * A diagnostic. `command`: words separated by blanks, 1 to NDIS_FILTER_DIAG_COMMAND_SIZE bytes; the first word names
 * the driver that is to answer. `text` gets what the drivers print, zero-terminated and cut to `text_size` bytes (at
 * least 64; nobody answered: ""). DIAG_BUSY: try again.
 */
int32_t ndisfilter_diagnose(ndisfilter_client* client, const char* command, char* text, size_t text_size);

/* ----------------------------------------------------------------------------------------------------------- events */

/* An event that was reported with a head, taken apart. */
typedef struct ndisfilter_event {
    uint32_t event1; /* the two event values */
    uint32_t event2;
    int has_head;       /* 0: the text is too short for a head; `head` is zero and `message` the text as it arrived */
    UserEventHead head; /* the adapter's identifier and the values of the reporting driver */
    const char* message; /* into the event; not zero-terminated, may be binary */
    size_t message_size; /* 0 to 1,024 */
} ndisfilter_event;

/* Cannot fail: whatever the length says, `message` stays within `event`, which must outlive `decoded`. */
void ndisfilter_decode_event(const UserEvent* event, ndisfilter_event* decoded);

/* -------------------------------------------------------------------------------------------------- the shared rings */

/*
 * Maps the shared memory and makes this client its owner; the driver has one owner at a time. Frames of an earlier
 * owner, sent or waiting, are dropped, and the program's indexes of the two rings brought in order. A driver's index
 * that an earlier owner has spoilt would halt its ring for good: it is set to 0. SHARE_TAKEN: another handle is the
 * owner, or this one already, or the memory could not be mapped.
 */
int32_t ndisfilter_share_start(ndisfilter_client* client);

/* Ends waiting calls with NO_SHARE, waits for them, and gives the share up. Harmless without a share. */
int32_t ndisfilter_share_stop(ndisfilter_client* client);

/* A frame to send. */
typedef struct ndisfilter_frame {
    uint32_t adapter_id; /* of a known adapter: the driver stops taking frames at one that it does not know */
    uint32_t direction;  /* NDIS_FILTER_DIRECTION_*; any other value has the driver drop the frame unseen */
    const void* data;    /* the Ethernet frame */
    uint32_t size;       /* its length, 1 to NDIS_FILTER_BLOCK_DATA_SIZE */
    uint32_t carried[2]; /* carried with the packet, not interpreted */
    uint32_t indicate_code;
    uint64_t indicate_value;
    const void* application_data; /* NDIS_FILTER_APPLICATION_DATA_SIZE bytes, or null: zeros */
} ndisfilter_frame;

/*
 * Puts frames into the input ring, in order, and announces them; data is copied. While the ring is full it waits for
 * room, at most `timeout_ms` (0: not at all). `*sent` is the number of frames that were put, also on failure.
 * TIMEOUT: not all of them. BAD_FRAME_SIZE: up to such a frame. BAD_RING, NO_SHARE.
 *
 * The driver can miss an announcement, so the library announces again, for as long as a frame of its is not taken. It
 * does not wait for the answer: that the driver refused one is told by the next ndisfilter_send or ndisfilter_flush.
 */
int32_t ndisfilter_send(ndisfilter_client* client, const ndisfilter_frame* frames, size_t count, uint32_t timeout_ms,
                        size_t* sent);

/*
 * Waits until the driver has taken all frames. `*left` (may be null) is the number it has not, also on TIMEOUT. When
 * it does not fall, the driver does not know the adapter of the oldest one, or has no packet for it.
 */
int32_t ndisfilter_flush(ndisfilter_client* client, uint32_t timeout_ms, size_t* left);

/* Takes back the frames that the driver has not taken; `*dropped` (may be null) is their number. BAD_RING, NO_SHARE. */
int32_t ndisfilter_discard(ndisfilter_client* client, size_t* dropped);

/* What a filter has indicated to the program. */
typedef struct ndisfilter_block {
    int is_signal;      /* 1: `content.signal` holds a signal record; 0: `content.frame` holds a frame */
    uint32_t size;      /* bytes of the frame, at most NDIS_FILTER_BLOCK_DATA_SIZE; NDIS_FILTER_SIGNAL_SIZE of a signal */
    uint32_t full_size; /* what the driver gave as length; more than `size`: the frame is cut */
    union {
        SharedBlock frame; /* m_Data behind `size` bytes is not set */
        /* The last 132 bytes lie in the next block and may be those of the one that was written there meanwhile. */
        uint8_t signal[NDIS_FILTER_SIGNAL_SIZE];
    } content;
} ndisfilter_block;

/*
 * Takes what waits in the output ring, at most `capacity` blocks; `*count` of them. Waits for the first one, at most
 * `timeout_ms`; 0 only looks. TIMEOUT: none came. CANCELLED, BAD_RING, NO_SHARE: none either.
 */
int32_t ndisfilter_receive(ndisfilter_client* client, ndisfilter_block* blocks, size_t capacity, uint32_t timeout_ms,
                           size_t* count);

/* Makes the waiting ndisfilter_receive return CANCELLED; if none waits, the next one. From any thread. */
int32_t ndisfilter_cancel_receive(ndisfilter_client* client);

#ifdef __cplusplus
}
#endif

#endif
