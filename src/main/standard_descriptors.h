// standard_descriptors.h: descriptors 0 to 2 belong to the standard streams.
#pragma once

// openStandardDescriptors puts /dev/null on each of the descriptors 0 to 2 that the starter left closed. Otherwise the
// next file to be opened would take the number, and records meant for standard error would land in it. Each is opened
// for the wrong direction, so that using it still fails: a document that nobody can get must not count as printed.
void openStandardDescriptors();
