#include <gtest/gtest.h>

#include <cstdlib>

#include "call.h"

int main(int argc, char** argv) {
  if (std::getenv("QUARVEL_PKCS11_MODULE") == nullptr) GTEST_FLAG_SET(filter, "-Card.*");
  testing::InitGoogleTest(&argc, argv);
  return startJava() ? RUN_ALL_TESTS() : 2;
}
