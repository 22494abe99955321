// What the shared library shows; everything else in it is hidden.

#pragma once

#define QUORVA_EXPORT __attribute__((visibility("default")))
