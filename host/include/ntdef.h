// Basic types of the kernel interface: the 64-bit Windows data model (LONG is 32 bits, pointers are 64, text
// is UTF-16), strings and lists.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <string.h>

#ifdef __cplusplus
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#else
#define EXTERN_C_START
#define EXTERN_C_END
#endif

// Binds a function whose name libc has as well to a link name of its own, so that neither replaces the other:
//     USHORT htons(USHORT value) HOST_LINK_NAME("htons");
#define HOST_LINK_NAME(name) __asm__("nt_" name)

#define IN
#define OUT
#define OPTIONAL
#define NTAPI
#define FASTCALL
#define FORCEINLINE static inline __attribute__((always_inline, unused))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define CONST const
#define VOID void

typedef void* PVOID;
typedef char CHAR, *PCHAR, *PSTR;
typedef const char* PCSTR;
typedef signed char CCHAR, SCHAR;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, KIRQL, *PKIRQL;
typedef short SHORT, *PSHORT, CSHORT;
typedef unsigned short USHORT, *PUSHORT;
typedef int INT, *PINT, LONG, *PLONG, NTSTATUS, *PNTSTATUS;
typedef unsigned int UINT, *PUINT, ULONG, *PULONG, ACCESS_MASK;
typedef long long LONGLONG, *PLONGLONG, LONG64, *PLONG64;
typedef unsigned long long ULONGLONG, *PULONGLONG, ULONG64, *PULONG64;
typedef long long LONG_PTR, *PLONG_PTR, INT_PTR;
typedef unsigned long long ULONG_PTR, *PULONG_PTR, UINT_PTR;
typedef size_t SIZE_T, *PSIZE_T;
typedef signed char INT8;
typedef short INT16;
typedef int INT32, LONG32;
typedef long long INT64;
typedef unsigned char UINT8;
typedef unsigned short UINT16;
typedef unsigned int UINT32, ULONG32;
typedef unsigned long long UINT64;
typedef LONG KPRIORITY;
typedef ULONG_PTR KAFFINITY;
typedef PVOID HANDLE, *PHANDLE;

#if __SIZEOF_WCHAR_T__ == 2
typedef wchar_t WCHAR;
#elif defined(__cplusplus)
typedef char16_t WCHAR;
#else
typedef __CHAR16_TYPE__ WCHAR;
#endif
typedef WCHAR *PWCHAR, *PWSTR;
typedef const WCHAR* PCWSTR;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

typedef union _LARGE_INTEGER {
    __extension__ struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    __extension__ struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

// Counted strings: both lengths are in bytes and the text need not end with a zero.
typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING;
typedef const STRING *PCSTRING, *PCANSI_STRING;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY, SLIST_ENTRY, *PSLIST_ENTRY;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_KERNEL_HANDLE 0x00000200
#define InitializeObjectAttributes(p, n, a, r, s)                                                            \
    do {                                                                                                     \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);                                                             \
        (p)->RootDirectory = (r);                                                                            \
        (p)->ObjectName = (n);                                                                               \
        (p)->Attributes = (a);                                                                               \
        (p)->SecurityDescriptor = (s);                                                                       \
        (p)->SecurityQualityOfService = NULL;                                                                \
    } while (0)

#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) ((type*)((char*)(address)-offsetof(type, field)))
#define RTL_NUMBER_OF(A) (sizeof(A) / sizeof((A)[0]))
#define MAXUSHORT 0xffff
#define MAXLONG 0x7fffffff
#define MAXULONG 0xffffffffU

FORCEINLINE void InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

// True when the list is empty after the removal.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY next = Entry->Flink;
    PLIST_ENTRY previous = Entry->Blink;
    previous->Flink = next;
    next->Blink = previous;
    return (BOOLEAN)(next == previous);
}

// These two answer the list head itself when the list is empty.
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY entry = ListHead->Flink;
    RemoveEntryList(entry);
    return entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY entry = ListHead->Blink;
    RemoveEntryList(entry);
    return entry;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY last = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = last;
    last->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY first = ListHead->Flink;
    Entry->Flink = first;
    Entry->Blink = ListHead;
    first->Blink = Entry;
    ListHead->Flink = Entry;
}
