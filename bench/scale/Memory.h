#pragma once

// What the scale scenario measures of its own process's memory.
namespace Scale {

// Resident memory in MiB with each shared-memory segment counted once: the
// scenario maps its VRF table both as the table's writer and as the
// library's reader, two views of the same pages, which the kernel's resident
// set size counts twice.
double residentMiB();

// The kernel's resident set size in MiB.
double kernelResidentMiB();

// Octets the heap holds now.
double heapOctets();

}  // namespace Scale
