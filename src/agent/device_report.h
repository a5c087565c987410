// device_report.h: the JSON document that tells an outside party who the device is.
#pragma once

// printDeviceInfo prints the device report on standard output, in one piece, and a newline.
//
// `attestationFile` is the path of the attestation context file, or null if there is none. The result is false, after a
// record of the reason and without a byte printed, when the context is unusable or the device's identifiers can't be
// read; false as well when the report could not be written.
bool printDeviceInfo(const char* attestationFile);
