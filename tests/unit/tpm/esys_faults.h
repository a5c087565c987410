// esys_faults.h: what esys_faults.cpp replaces beyond failures.
#pragma once

#include <tss2/tss2_esys.h>

#include <functional>

using NvCertify = std::function<TSS2_RC(TPM2B_ATTEST** certifyInfo, TPMT_SIGNATURE** signature)>;

// g_fNvCertify replaces Esys_NV_Certify when it is set.
extern NvCertify g_fNvCertify;
