// Versions and settings of what this driver runs on.
#include "framescope.h"

using namespace sample;

namespace
{

// The framework's service key lies beside this driver's own. Only the last characters of a path can be replaced, so
// both names need the same length.
constexpr WCHAR kOwnName[] = L"framescope";
constexpr WCHAR kFrameworkName[] = L"NdisFilter";
static_assert(sizeof(kOwnName) == sizeof(kFrameworkName));

BOOLEAN EndsWithOwnName(const UNICODE_STRING& path)
{
    constexpr ULONG kBytes = sizeof(kOwnName) - sizeof(WCHAR);
    return path.Length >= kBytes &&
           RtlCompareMemory(path.Buffer + (path.Length - kBytes) / sizeof(WCHAR), kOwnName, kBytes) == kBytes;
}

} // namespace

VOID FindFrameworkKey(PUNICODE_STRING pOwnPath)
{
    UNICODE_STRING path = {};
    if (Filter_SaveDriverRegistryPath(pOwnPath, &path) != STATUS_SUCCESS) {
        return;
    }
    UNICODE_STRING tail = {sizeof(kFrameworkName) - sizeof(WCHAR), sizeof(kFrameworkName),
                           const_cast<PWSTR>(kFrameworkName)};
    if (EndsWithOwnName(path) &&
        Filter_ReplaceDriverRegistryPath(&path, &tail, &scope.FrameworkKey) == STATUS_SUCCESS) {
        scope.FrameworkFlag = Filter_GetGlobalDebugFlag(&scope.FrameworkKey, 0);
        DbgPrint("framescope: the framework's pending-packet limit is %u\n",
                 Filter_GetPendingPacketLimit(&scope.FrameworkKey, 0));
    }
    ExFreePool(path.Buffer);
}

VOID FreeFrameworkKey()
{
    if (scope.FrameworkKey.Buffer != nullptr) {
        ExFreePool(scope.FrameworkKey.Buffer);
        scope.FrameworkKey.Buffer = nullptr;
    }
}

VOID AnswerSystem(Diag* pDiag)
{
    ULONG version[4] = {};
    const FILTER_STATUS status = Filter_GetOsVersion(&version[0], &version[1], &version[2], &version[3]);
    Filter_DiagPrint(pDiag, "system %u.%u.%u.%u (%s), debug mask 0x%x\n", version[0], version[1], version[2],
                     version[3], Filter_StatusString(status), scope.FrameworkFlag);
    Filter_DiagPrint(pDiag, "verdicts:");
    for (FILTER_RESULT result = FILTER_RESULT_BYPASS; result <= FILTER_RESULT_CAPTURE; ++result) {
        Filter_DiagPrint(pDiag, " %s", Filter_ResultString(result));
    }
    Filter_DiagPrint(pDiag, "\nmethods:");
    for (FILTER_METHOD method = FILTER_METHOD_START_FROM_FIRST_FILTER;
         method <= FILTER_METHOD_START_AFTER_THIS_FILTER; ++method) {
        Filter_DiagPrint(pDiag, " %s", Filter_MethodString(method));
    }
    Filter_DiagPrint(pDiag, "\n");
    if (pDiag->m_nArgumentCount == 2 && IsWord(pDiag->m_ppszArguments[1], "reload") &&
        scope.FrameworkKey.Buffer != nullptr) {
        Filter_SafeGetGlobalDebugFlag(&scope.FrameworkKey, 0,
                                      &scope.FrameworkFlag); // in a worker, a little later
    }
}
