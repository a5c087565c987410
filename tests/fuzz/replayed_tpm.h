// replayed_tpm.h: a device whose TPM answers what it is told to, for the targets that run the device report.
//
// Linked into a program, it takes the place of the TPM's connection, of the waits between attempts and of
// /proc/cpuinfo, where it puts a serial number. All HMACs of the TPM software stack are zeros, so that no key is needed
// to forge one.
//
// record_tpm_answers.py records what a software TPM answers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/json.h"

// replayAnswers sets what the TPM answers from now on. The bytes stay the caller's and are not copied.
//
// Before each answer are the low byte of its command's code and its size in two bytes, the more significant one first.
// A command takes the first answer for its code that no other command took. When there is none, the connection is lost.
void replayAnswers(const uint8_t* data, size_t size);

// printedReport runs the device report with a TPM of its own, first incrementing the tally counter if asked to, and
// requires that a whole report is printed or nothing. Returns the report, or null.
JSON::root printedReport(const char* attestationFile, bool increment = false);
