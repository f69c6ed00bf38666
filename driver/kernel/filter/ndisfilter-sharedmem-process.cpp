#include "ndisfilter-sharedmem-process.h"

VOID MappingProcess::Remember()
{
    m_pProcess = PsGetCurrentProcess();
    ObReferenceObject(m_pProcess);
}

VOID MappingProcess::Forget()
{
    ObDereferenceObject(m_pProcess);
    m_pProcess = nullptr;
}

BOOLEAN MappingProcess::HasEnded() const
{
    LARGE_INTEGER now = {};
    return KeWaitForSingleObject(m_pProcess, Executive, KernelMode, FALSE, &now) == STATUS_SUCCESS;
}
