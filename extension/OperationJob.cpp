#include "extension/OperationJob.h"

void DestroyOperationJob(OperationJob* job) noexcept
{
    delete job;
}
