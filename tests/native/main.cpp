#include <gtest/gtest.h>

#include "call.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return startJava() ? RUN_ALL_TESTS() : 2;
}
