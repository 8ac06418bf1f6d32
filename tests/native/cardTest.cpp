// The card's own methods on a real module that stores vendor-defined attributes: token.sh
// starts NSS and names it in QUARVEL_PKCS11_MODULE; without it these tests are filtered out.
#include <gtest/gtest.h>

#include <cstdlib>

#include "call.h"
#include "pkcs11Bridge.h"

namespace {

/// A session on the slot whose token has the label `label`; 0 when there is none.
CK_SESSION_HANDLE openSession(const std::string& label) {
  CK_SLOT_ID_PTR slots = nullptr;
  CK_ULONG count = 0;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  EXPECT_EQ(bridge::getSlotList(&slots, CK_TRUE, &count), CKR_OK);
  for (CK_ULONG i = 0; i < count; ++i) {
    CK_TOKEN_INFO info = {};
    bridge::getTokenInfo(slots[i], &info);
    const std::string found(reinterpret_cast<char*>(info.label), label.size());
    if (found == label) bridge::openSession(slots[i], 6, &session);
  }
  std::free(slots);
  return session;
}

TEST(Card, TheLifeCycleByteIsReadAndChanged) {
  CK_FUNCTION_LIST_PTR list = nullptr;
  ASSERT_EQ(bridge::loadLib(std::getenv("QUARVEL_PKCS11_MODULE"), &list), CKR_OK);
  ASSERT_EQ(bridge::initLib(), CKR_OK);
  const CK_SESSION_HANDLE ckSession = openSession("generic");
  ASSERT_NE(ckSession, CK_INVALID_HANDLE);
  const jobject session =
      newHandle("NativePKCS11Session", "NativePKCS11Slot", nullptr, static_cast<jint>(ckSession));
  const auto onCard = [&](const std::string& method, const std::string& arguments) {
    const std::string result = call("Session." + method, arguments, {}, &session).result;
    return result.substr(0, result.find(" in "));
  };
  EXPECT_EQ(onCard("getIdentrusObject", ""), "NativePKCS11Object[objectID=0]");

  // Such an object cannot be made from Java, where vendor-defined types have no name.
  CK_OBJECT_CLASS objectClass = CKO_DATA;
  unsigned int application = 0x80008001;
  CK_BYTE status = 3;
  CK_BBOOL no = CK_FALSE;
  CK_BBOOL yes = CK_TRUE;
  CK_ATTRIBUTE planted[] = {
      {CKA_CLASS, &objectClass, sizeof objectClass},
      {CKA_TOKEN, &no, sizeof no},
      {CKA_MODIFIABLE, &yes, sizeof yes},
      {0x80000201, &application, sizeof application},
      {0x80004400, &status, sizeof status}};
  CK_OBJECT_HANDLE object = CK_INVALID_HANDLE;
  ASSERT_EQ(bridge::createObject(ckSession, &object, planted, 5), CKR_OK);

  EXPECT_EQ(onCard("getIdentrusObject", ""),
            "NativePKCS11Object[objectID=" + std::to_string(static_cast<jint>(object)) + "]");
  EXPECT_EQ(onCard("getCardStatus", ""), "3");
  EXPECT_EQ(onCard("setCardStatus", "8"), "void");
  EXPECT_EQ(onCard("getCardStatus", ""), "8");
  EXPECT_EQ(onCard("setCardStatus", "0x190"), "void");
  EXPECT_EQ(onCard("getCardStatus", ""), "-112");
  EXPECT_EQ(bridge::destroyObject(ckSession, object), CKR_OK);
  EXPECT_EQ(onCard("getIdentrusObject", ""), "NativePKCS11Object[objectID=0]");
  EXPECT_EQ(bridge::finalizeLib(), CKR_OK);
}

}  // namespace
