// Marks the functions and data that libvelmarin.so exports.
#pragma once

#define VELMARIN_EXPORT __attribute__((visibility("default")))
