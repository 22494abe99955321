// A C++ program linked with the library, which is never used: what starting it costs.

#include <QuorvaSDK/QuorvaSDK.h>

int main(int argc, char**) {
  return argc > 1 ? quorva::MainQueue::fd() : 0;
}
