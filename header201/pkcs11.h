// SPDX-License-Identifier: Apache-2.0
// The PKCS#11 types that the sources are built against: the standard's header as Debian's
// libp11-kit-dev provides it, held at compile time to the 64-bit Linux layout that modules use.
#ifndef QUARVEL_HEADER201_PKCS11_H_
#define QUARVEL_HEADER201_PKCS11_H_

#include <p11-kit/pkcs11.h>

#include <cstddef>

static_assert(sizeof(CK_ULONG) == 8 && sizeof(CK_BBOOL) == 1 && sizeof(CK_VERSION) == 2);

static_assert(sizeof(CK_ATTRIBUTE) == 24 && offsetof(CK_ATTRIBUTE, pValue) == 8 &&
              offsetof(CK_ATTRIBUTE, ulValueLen) == 16);
static_assert(sizeof(CK_MECHANISM) == 24 && sizeof(CK_MECHANISM_INFO) == 24);

static_assert(sizeof(CK_INFO) == 88 && offsetof(CK_INFO, manufacturerID) == 2 &&
              offsetof(CK_INFO, flags) == 40 && offsetof(CK_INFO, libraryDescription) == 48 &&
              offsetof(CK_INFO, libraryVersion) == 80);
static_assert(sizeof(CK_SLOT_INFO) == 112 && offsetof(CK_SLOT_INFO, flags) == 96);
static_assert(sizeof(CK_TOKEN_INFO) == 208 && offsetof(CK_TOKEN_INFO, serialNumber) == 80 &&
              offsetof(CK_TOKEN_INFO, flags) == 96 &&
              offsetof(CK_TOKEN_INFO, ulMaxSessionCount) == 104 &&
              offsetof(CK_TOKEN_INFO, hardwareVersion) == 184 &&
              offsetof(CK_TOKEN_INFO, utcTime) == 188);
static_assert(sizeof(CK_SESSION_INFO) == 32);

static_assert(offsetof(CK_FUNCTION_LIST, C_Initialize) == 8 &&
              offsetof(CK_FUNCTION_LIST, C_OpenSession) == 104 &&
              offsetof(CK_FUNCTION_LIST, C_FindObjects) == 224 &&
              offsetof(CK_FUNCTION_LIST, C_WaitForSlotEvent) == 544 &&
              sizeof(CK_FUNCTION_LIST) == 552);

#endif  // QUARVEL_HEADER201_PKCS11_H_
