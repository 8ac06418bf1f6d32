// The native methods of NativePKCS11Session: login and PINs, cryptographic operations, object
// search and creation, key generation and wrapping, and the card's own operations.
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

/// The opening of a method that has nothing else to read first: start text, session handle, trace.
std::optional<CK_SESSION_HANDLE> beginInSession(JNIEnv* env, jobject session,
                                                const char* startText) {
  TRACE("%s", startText);
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (ckSessionNum) TRACE("(session= %li)\n", *ckSessionNum);
  return ckSessionNum;
}

CK_USER_TYPE userType(jboolean isSO) { return isSO != JNI_FALSE ? CKU_SO : CKU_USER; }

/// A mechanism without parameter; none can be given from Java.
CK_MECHANISM mechanism(jint mech) { return {J2CK_INT(mech), nullptr, 0}; }

using InitCall = CK_RV (*)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE);
using DataCall = CK_RV (*)(CK_SESSION_HANDLE, CK_BYTE_PTR, CK_ULONG, CK_BYTE_PTR, CK_ULONG*);

/// signInit, encryptInit and decryptInit.
void startOperation(JNIEnv* env, jobject session, jint mech, jobject key, const char* startText,
                    InitCall call) {
  TRACE("%s", startText);
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return;
  const std::optional<CK_OBJECT_HANDLE> ckKey = getObjectID(env, key);
  if (!ckKey) return;
  CK_MECHANISM ckMech = mechanism(mech);
  TRACE("(session= %li)\n", *ckSessionNum);
  throwIfFailed(env, call(*ckSessionNum, &ckMech, *ckKey));
}

/// The elements of an output array of which the module may write the first `room` bytes; null after
/// raising CKR_BUFFER_TOO_SMALL for a shorter array, or as takeBytes.
jbyte* takeRoom(JNIEnv* env, jbyteArray outData, jint room) {
  if (outData != nullptr && env->GetArrayLength(outData) < room) {
    throwCKExc(env, CKR_BUFFER_TOO_SMALL);
    return nullptr;
  }
  return takeBytes(env, outData);
}

/// sign and decrypt: without room in `outData` (null or empty) the call asks for the length.
jint signOrDecrypt(JNIEnv* env, jobject session, jbyteArray inData, jint inLen, jbyteArray outData,
                   const char* startText, DataCall call) {
  TRACE("%s", startText);
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return -1;
  jbyte* ckInData = takeInput(env, inData, inLen);
  if (ckInData == nullptr) return -1;
  jbyte* ckOutData = nullptr;
  CK_ULONG ckOutLen = 0;
  if (outData != nullptr) {
    ckOutData = takeBytes(env, outData);
    if (ckOutData == nullptr) {
      releaseBytes(env, inData, ckInData);
      return -1;
    }
    ckOutLen = J2CK_INT(env->GetArrayLength(outData));
  }
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = call(*ckSessionNum, moduleBytes(ckInData), J2CK_INT(inLen),
                          ckOutLen != 0 ? moduleBytes(ckOutData) : nullptr, &ckOutLen);
  releaseBytes(env, inData, ckInData);
  if (outData != nullptr) releaseBytes(env, outData, ckOutData);
  return throwIfFailed(env, ckRv) ? -1 : CK2J_INT(ckOutLen);
}

/// Room for the public and the private template of a key pair; both or, with an exception, none.
bool newTemplatePair(JNIEnv* env, CK_ULONG pubLen, CK_ULONG prvLen, CK_ATTRIBUTE** pubAttr,
                     CK_ATTRIBUTE** prvAttr) {
  *pubAttr = newTemplate(env, pubLen);
  if (*pubAttr == nullptr) return false;
  *prvAttr = newTemplate(env, prvLen);
  if (*prvAttr != nullptr) return true;
  std::free(*pubAttr);
  *pubAttr = nullptr;
  return false;
}

// The vendor-defined attributes of the card.
constexpr CK_ATTRIBUTE_TYPE kApplicationType = CKA_VENDOR_DEFINED + 0x201;
constexpr CK_ATTRIBUTE_TYPE kLifeCycle = CKA_VENDOR_DEFINED + 0x4400;
constexpr CK_ATTRIBUTE_TYPE kCertificateID = CKA_VENDOR_DEFINED + 0x2000;
constexpr CK_ATTRIBUTE_TYPE kUtilityKey = CKA_VENDOR_DEFINED + 0x6001;
constexpr CK_ATTRIBUTE_TYPE kIdentityKey = CKA_VENDOR_DEFINED + 0x6002;

constexpr std::uint32_t kIdentrusApplication = 0x80008001;  // an application type
constexpr jint kPreFirstUse = 8;                            // a life-cycle status

/// The first object that the card shows for its Identrus application.
/// @return 0 when there is none, -1 when the search cannot be started, -2 when it fails; after -2
/// the search is left to the caller to end
CK_OBJECT_HANDLE getIdentrusApplication(CK_SESSION_HANDLE session) {
  std::uint32_t type = kIdentrusApplication;
  CK_ATTRIBUTE _template = {kApplicationType, &type, sizeof type};
  CK_OBJECT_HANDLE identrusApplication = CK_INVALID_HANDLE;
  if (bridge::findObjectsInit(session, &_template, 1) != CKR_OK) return static_cast<CK_ULONG>(-1);
  if (bridge::findObjects(session, &identrusApplication) != CKR_OK) {
    return static_cast<CK_ULONG>(-2);
  }
  bridge::findObjectsFinal(session);
  return identrusApplication;
}

/// The opening of getCardStatus and setCardStatus, traced in any case: finds the application
/// object and reads its life-cycle byte.
/// @return whether that succeeded; if not, an exception is pending
bool readLifeCycle(JNIEnv* env, jobject session, const char* startText,
                   CK_SESSION_HANDLE* ckSessionNum, CK_OBJECT_HANDLE* identrusApplication,
                   signed char* status) {
  std::printf("%s", startText);
  const std::optional<CK_SESSION_HANDLE> handle = getSessionID(env, session);
  if (!handle) return false;
  *ckSessionNum = *handle;
  std::printf("(session= %li)\n", *ckSessionNum);
  *identrusApplication = getIdentrusApplication(*ckSessionNum);
  std::printf("Identrus application id = %i\n", CK2J_INT(*identrusApplication));

  CK_ATTRIBUTE lifeCycle = {kLifeCycle, status, sizeof *status};
  if (throwIfFailed(env,
                    bridge::getAttributeValue(*ckSessionNum, *identrusApplication, &lifeCycle))) {
    return false;
  }
  *status = *static_cast<signed char*>(lifeCycle.pValue);
  std::free(lifeCycle.pValue);
  return true;
}

}  // namespace

// ---- Session lifecycle, login and PINs ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_close(JNIEnv* env,
                                                                            jobject session) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.closeSession... ");
  if (ckSessionNum) throwIfFailed(env, bridge::closeSession(*ckSessionNum));
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getInfo(JNIEnv* env,
                                                                                 jobject session) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.getInfo... ");
  CK_SESSION_INFO ckSessionInfo = {};
  if (!ckSessionNum || throwIfFailed(env, bridge::getSessionInfo(*ckSessionNum, &ckSessionInfo))) {
    return nullptr;
  }
  TRACE("JNI: creating jobject PKCS11SessionInfo...");
  const jobject sessioninfo =
      newObject(env, "it/quarvel/pkcs11/PKCS11SessionInfo", "(III)V", CK2J_INT(ckSessionInfo.state),
                CK2J_FLAGS(ckSessionInfo.flags), CK2J_INT(ckSessionInfo.ulDeviceError));
  if (sessioninfo != nullptr) traceLine("OK");
  return sessioninfo;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_login(JNIEnv* env,
                                                                            jobject session,
                                                                            jboolean isSO,
                                                                            jstring pin) {
  TRACE("JNI: start PKCS11Session.login... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return;
  const char* utf_str = takeChars(env, pin);
  if (utf_str == nullptr) return;
  TRACE("(session= %li)\n", *ckSessionNum);
  throwIfFailed(env, bridge::login(*ckSessionNum, userType(isSO), moduleBytes(utf_str)));
  env->ReleaseStringUTFChars(pin, utf_str);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_logout(JNIEnv* env,
                                                                             jobject session) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.logout... ");
  if (ckSessionNum) throwIfFailed(env, bridge::logout(*ckSessionNum));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_initPIN(JNIEnv* env,
                                                                              jobject session,
                                                                              jstring newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.initPin... ");
  if (!ckSessionNum) return;
  const char* newPinStr = takeChars(env, newPin);
  if (newPinStr == nullptr) return;
  throwIfFailed(env, bridge::initPin(*ckSessionNum, moduleBytes(newPinStr)));
  env->ReleaseStringUTFChars(newPin, newPinStr);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setPIN(JNIEnv* env,
                                                                             jobject session,
                                                                             jstring oldPin,
                                                                             jstring newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.setPin... ");
  if (!ckSessionNum) return;
  const char* oldPinStr = takeChars(env, oldPin);
  if (oldPinStr == nullptr) return;
  const char* newPinStr = takeChars(env, newPin);
  if (newPinStr != nullptr) {
    throwIfFailed(env,
                  bridge::setPin(*ckSessionNum, moduleBytes(oldPinStr), moduleBytes(newPinStr)));
  }
  env->ReleaseStringUTFChars(oldPin, oldPinStr);
  if (newPinStr != nullptr) env->ReleaseStringUTFChars(newPin, newPinStr);
}

// ---- Cryptographic operations ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(env, session, mech, key, "JNI: start PKCS11Session.signInit... ",
                 bridge::signInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_sign(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  return signOrDecrypt(env, session, inData, inLen, outData, "JNI: start PKCS11Session.sign... ",
                       bridge::sign);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encryptInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(env, session, mech, key, "JNI: start PKCS11Session.encryptInit... ",
                 bridge::encryptInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encrypt(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  TRACE("JNI: start PKCS11Session.encrypt... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return -1;
  jbyte* ckInData = takeInput(env, inData, inLen);
  if (ckInData == nullptr) return -1;
  jbyte* ckOutData = takeRoom(env, outData, inLen);
  if (ckOutData == nullptr) {
    releaseBytes(env, inData, ckInData);
    return -1;
  }
  CK_ULONG ckOutLen = J2CK_INT(inLen);
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = bridge::encrypt(*ckSessionNum, moduleBytes(ckInData), J2CK_INT(inLen),
                                     moduleBytes(ckOutData), &ckOutLen);
  releaseBytes(env, inData, ckInData);
  releaseBytes(env, outData, ckOutData);
  return throwIfFailed(env, ckRv) ? -1 : CK2J_INT(ckOutLen);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(env, session, mech, key, "JNI: start PKCS11Session.decryptInit... ",
                 bridge::decryptInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decrypt(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  return signOrDecrypt(env, session, inData, inLen, outData, "JNI: start PKCS11Session.decrypt... ",
                       bridge::decrypt);
}

// ---- Operations that are not offered ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signUpdate(JNIEnv* env,
                                                                                 jobject,
                                                                                 jbyteArray, jint,
                                                                                 jint) {
  throwExc(env, "Not supported YET");
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signFinal(JNIEnv* env,
                                                                                jobject, jbyteArray,
                                                                                jint) {
  throwExc(env, "Not supported YET");
  return -1;
}

JNIEXPORT jbyteArray JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getOperationState(JNIEnv* env, jobject) {
  notSupported(env);
  return nullptr;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setOperationState(
    JNIEnv* env, jobject, jbyteArray, jobject, jobject) {
  notSupported(env);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encryptUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encryptFinal(JNIEnv* env,
                                                                                   jobject,
                                                                                   jbyteArray,
                                                                                   jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptFinal(JNIEnv* env,
                                                                                   jobject,
                                                                                   jbyteArray,
                                                                                   jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digestInit(JNIEnv* env,
                                                                                 jobject, jint,
                                                                                 jobject) {
  notSupported(env);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digest(JNIEnv* env, jobject,
                                                                             jbyteArray, jint, jint,
                                                                             jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digestUpdate(JNIEnv* env,
                                                                                   jobject,
                                                                                   jbyteArray, jint,
                                                                                   jint) {
  notSupported(env);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digestKey(JNIEnv* env,
                                                                                jobject, jobject) {
  notSupported(env);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digestFinal(JNIEnv* env,
                                                                                  jobject,
                                                                                  jbyteArray,
                                                                                  jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signRecoverInit(JNIEnv* env,
                                                                                      jobject, jint,
                                                                                      jobject,
                                                                                      jobject) {
  notSupported(env);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signRecover(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verifyInit(JNIEnv* env,
                                                                                 jobject, jint,
                                                                                 jobject, jobject) {
  notSupported(env);
}

JNIEXPORT jboolean JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verify(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint, jint) {
  notSupported(env);
  return JNI_FALSE;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verifyUpdate(JNIEnv* env,
                                                                                   jobject,
                                                                                   jbyteArray, jint,
                                                                                   jint) {
  notSupported(env);
}

JNIEXPORT jboolean JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verifyFinal(JNIEnv* env,
                                                                                      jobject,
                                                                                      jbyteArray,
                                                                                      jint, jint) {
  notSupported(env);
  return JNI_FALSE;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verifyRecoverInit(
    JNIEnv* env, jobject, jint, jobject, jobject) {
  notSupported(env);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_verifyRecover(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_digestEncryptUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptDigestUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signEncryptUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptVerifyUpdate(
    JNIEnv* env, jobject, jbyteArray, jint, jint, jbyteArray, jint) {
  notSupported(env);
  return 0;
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_deriveKey(
    JNIEnv* env, jobject, jint, jobject, jobject, jintArray, jobjectArray) {
  notSupported(env);
  return nullptr;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_seedRandom(JNIEnv* env,
                                                                                 jobject,
                                                                                 jbyteArray, jint,
                                                                                 jint) {
  notSupported(env);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_generateRandom(JNIEnv* env,
                                                                                     jobject,
                                                                                     jbyteArray,
                                                                                     jint, jint) {
  notSupported(env);
}

JNIEXPORT jboolean JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getFunctionStatus(JNIEnv* env, jobject) {
  notSupported(env);
  return JNI_FALSE;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_cancelFunction(JNIEnv* env,
                                                                                     jobject) {
  notSupported(env);
}

// ---- Object search ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_findObjectsInit(
    JNIEnv* env, jobject session, jintArray attrArray, jobjectArray valArray) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.findObjectsInit... ");
  if (!ckSessionNum) return;
  if (attrArray == nullptr && valArray == nullptr) {
    throwIfFailed(env, bridge::findObjectsInit(*ckSessionNum, nullptr, 0));
    return;
  }
  CK_ATTRIBUTE* ckAttr = nullptr;
  CK_ULONG ckCount = 0;
  jint* attrA = buildTemplate(env, attrArray, valArray, Surplus::kRefused, &ckAttr, &ckCount);
  if (attrA == nullptr) return;
  throwIfFailed(env, bridge::findObjectsInit(*ckSessionNum, ckAttr, ckCount));
  releaseTypes(env, attrArray, attrA);
  freeTemplate(ckAttr, ckCount);
}

JNIEXPORT jobject JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_findObject(JNIEnv* env, jobject session) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.findObject... ");
  CK_OBJECT_HANDLE ckObj = CK_INVALID_HANDLE;
  if (!ckSessionNum || throwIfFailed(env, bridge::findObjects(*ckSessionNum, &ckObj))) {
    return nullptr;
  }
  if (ckObj == CK_INVALID_HANDLE) {
    traceLine("JNI: No more objects (NULL found)");
    return nullptr;
  }
  TRACE("JNI: creating PKCS11Object (%li)...", ckObj);
  const jobject object = newTokenObject(env, session, ckObj);
  if (object != nullptr) traceLine("OK");
  return object;
}

JNIEXPORT void JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_findObjectsFinal(JNIEnv* env, jobject session) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.findObjectsFinal... ");
  if (ckSessionNum) throwIfFailed(env, bridge::findObjectsFinal(*ckSessionNum));
}

// ---- Card-specific extensions ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_loginellips(JNIEnv* env,
                                                                                  jobject session,
                                                                                  jboolean isSO,
                                                                                  jbyteArray pin) {
  TRACE("JNI: start PKCS11Session.login ellips... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return;
  jbyte* ckPin = takeBytes(env, pin);
  if (ckPin == nullptr) return;
  const CK_ULONG ckPinLen = J2CK_INT(env->GetArrayLength(pin));
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv =
      bridge::loginellips(*ckSessionNum, userType(isSO), moduleBytes(ckPin), ckPinLen);
  releaseBytes(env, pin, ckPin);
  throwIfFailed(env, ckRv);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setPINellips(
    JNIEnv* env, jobject session, jbyteArray oldPin, jbyteArray newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.setPin ellips... ");
  if (!ckSessionNum) return;
  jbyte* ckoldPin = takeBytes(env, oldPin);
  if (ckoldPin == nullptr) return;
  const CK_ULONG ckoldPinLen = J2CK_INT(env->GetArrayLength(oldPin));
  jbyte* cknewPin = takeBytes(env, newPin);
  if (cknewPin == nullptr) {
    releaseBytes(env, oldPin, ckoldPin);
    return;
  }
  const CK_ULONG cknewPinLen = J2CK_INT(env->GetArrayLength(newPin));
  const CK_RV ckRv = bridge::setPinellips(*ckSessionNum, moduleBytes(ckoldPin), ckoldPinLen,
                                          moduleBytes(cknewPin), cknewPinLen);
  releaseBytes(env, oldPin, ckoldPin);
  releaseBytes(env, newPin, cknewPin);
  throwIfFailed(env, ckRv);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_loginAuthPath(JNIEnv* env,
                                                                                    jobject session,
                                                                                    jboolean isSO) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.login... ");
  if (ckSessionNum) throwIfFailed(env, bridge::loginAuthPath(*ckSessionNum, userType(isSO)));
}

JNIEXPORT jint JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getCardStatus(JNIEnv* env, jobject session) {
  CK_SESSION_HANDLE ckSessionNum = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE identrusApplication = CK_INVALID_HANDLE;
  signed char c = 0;
  if (!readLifeCycle(env, session, "JNI: start PKCS11Session.getCardStatus oberthur... ",
                     &ckSessionNum, &identrusApplication, &c)) {
    return -1;
  }
  std::printf("lifeCycle status %d\n", c);
  return c;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setCardStatus(JNIEnv* env,
                                                                                    jobject session,
                                                                                    jint status) {
  CK_SESSION_HANDLE ckSessionNum = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE identrusApplication = CK_INVALID_HANDLE;
  signed char current = 0;
  if (!readLifeCycle(env, session, "JNI: start PKCS11Session.setCardStatus oberthur... ",
                     &ckSessionNum, &identrusApplication, &current)) {
    return;
  }
  std::printf("Current lifeCycle status %d\n", current);

  if (status == kPreFirstUse) std::puts("Setting status to pre.first use");
  auto applicationLifeCycle = static_cast<unsigned char>(status);
  CK_ATTRIBUTE lifeCycle = {kLifeCycle, &applicationLifeCycle, sizeof applicationLifeCycle};
  std::printf("Setting lifeCycle status to %d\n", static_cast<signed char>(applicationLifeCycle));
  const CK_RV ckRv = bridge::setAttributeValue(ckSessionNum, identrusApplication, &lifeCycle, 1);
  if (ckRv != CKR_OK) std::printf("Error number : %li\n", ckRv);
  throwIfFailed(env, ckRv);
}

JNIEXPORT jobject JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getIdentrusObject(JNIEnv* env, jobject session) {
  std::printf("JNI: start PKCS11Session.getIdentrusObject... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return nullptr;
  std::printf("(session= %li)\n", *ckSessionNum);
  const CK_OBJECT_HANDLE identrusApplication = getIdentrusApplication(*ckSessionNum);
  std::printf("Identrus application id = %i", CK2J_INT(identrusApplication));
  std::printf("JNI: creating PKCS11Object (%li)...", identrusApplication);

  const Constructor objCostr = findConstructor(env, kTokenObjectClass, kTokenObjectInit);
  if (objCostr.init == nullptr) {
    std::printf(objCostr.cl == nullptr ? "Unable to find class NativePKCS11Object"
                                       : "Unable to find constructor for class NativePKCS11Object");
    return nullptr;
  }
  const jobject application =
      env->NewObject(objCostr.cl, objCostr.init, session, CK2J_INT(identrusApplication));
  if (application == nullptr) {
    std::printf("Unable to find construct new object for class NativePKCS11Object");
  }
  return application;
}

// ---- Key pair generation ----

JNIEXPORT jobjectArray JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_generateKeyPair(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jintArray pubAttrs,
    jobjectArray pubVals, jintArray prvAttrs, jobjectArray prvVals) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.genKeyPair... ");
  if (!ckSessionNum) return nullptr;
  CK_MECHANISM ckMech = mechanism(mech);

  CK_ULONG ckPubLen = 0;
  CK_ULONG ckPrvLen = 0;
  if (!templateLength(env, pubAttrs, pubVals, Surplus::kRefused,
                      "Different array length for PublicKey", &ckPubLen) ||
      !templateLength(env, prvAttrs, prvVals, Surplus::kRefused,
                      "Different array length for PrivateKey", &ckPrvLen)) {
    return nullptr;
  }
  CK_ATTRIBUTE* ckPubAttr = nullptr;
  CK_ATTRIBUTE* ckPrvAttr = nullptr;
  if (!newTemplatePair(env, ckPubLen, ckPrvLen, &ckPubAttr, &ckPrvAttr)) return nullptr;

  traceLine("JNI: parse public values...");
  jint* attrA = fillTemplate(env, pubAttrs, pubVals, ckPubAttr, ckPubLen);
  if (attrA == nullptr) {
    std::free(ckPubAttr);
    std::free(ckPrvAttr);
    return nullptr;
  }
  releaseTypes(env, pubAttrs, attrA);

  traceLine("JNI: parse private values...");
  attrA = fillTemplate(env, prvAttrs, prvVals, ckPrvAttr, ckPrvLen);
  if (attrA == nullptr) {
    std::free(ckPrvAttr);
    freeTemplate(ckPubAttr, ckPubLen);
    return nullptr;
  }
  releaseTypes(env, prvAttrs, attrA);

  CK_OBJECT_HANDLE ckPubKey = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE ckPrvKey = CK_INVALID_HANDLE;
  const CK_RV ckRv = bridge::generateKeyPair(*ckSessionNum, &ckMech, ckPubAttr, ckPubLen, ckPrvAttr,
                                             ckPrvLen, &ckPubKey, &ckPrvKey);
  const jobjectArray keyPair =
      throwIfFailed(env, ckRv) ? nullptr : newKeyPair(env, session, ckPubKey, ckPrvKey);
  freeTemplate(ckPubAttr, ckPubLen);
  freeTemplate(ckPrvAttr, ckPrvLen);
  return keyPair;
}

JNIEXPORT jobjectArray JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_generateKeyPairOB(
    JNIEnv* env, jobject session, jint mech, jboolean isIdentity) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return nullptr;
  TRACE("JNI: start PKCS11Session.genKeyPair... ");
  CK_MECHANISM ckMech = mechanism(mech);
  TRACE("(session= %li)\n", *ckSessionNum);

  constexpr CK_ULONG kKeyPairEntries = 4;
  CK_ATTRIBUTE* ckPubAttr = nullptr;
  CK_ATTRIBUTE* ckPrvAttr = nullptr;
  if (!newTemplatePair(env, kKeyPairEntries, kKeyPairEntries, &ckPubAttr, &ckPrvAttr)) {
    return nullptr;
  }

  CK_ULONG modulus = 1024;
  CK_BYTE pubExponent[] = {0x01, 0x00, 0x01};
  CK_BBOOL vero = CK_TRUE;
  // Eight bytes are announced for either label: "Utility" takes its terminating zero along.
  char identity[] = "Identity";
  char utility[] = "Utility";
  const bool forIdentity = isIdentity != JNI_FALSE;
  ckPubAttr[0] = {CKA_MODULUS_BITS, &modulus, sizeof modulus};
  ckPubAttr[1] = {CKA_PUBLIC_EXPONENT, pubExponent, sizeof pubExponent};
  ckPubAttr[2] = {CKA_TOKEN, &vero, sizeof vero};
  ckPubAttr[3] = {CKA_LABEL, forIdentity ? identity : utility, 8};
  ckPrvAttr[0] = {CKA_TOKEN, &vero, sizeof vero};
  ckPrvAttr[1] = {CKA_SIGN, &vero, sizeof vero};
  ckPrvAttr[2] = {CKA_SIGN_RECOVER, &vero, sizeof vero};
  ckPrvAttr[3] = {forIdentity ? kIdentityKey : kUtilityKey, &vero, sizeof vero};

  std::printf("Start generating keypair...");
  CK_OBJECT_HANDLE ckPubKey = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE ckPrvKey = CK_INVALID_HANDLE;
  const CK_RV ckRv = bridge::generateKeyPair(*ckSessionNum, &ckMech, ckPubAttr, kKeyPairEntries,
                                             ckPrvAttr, kKeyPairEntries, &ckPubKey, &ckPrvKey);
  std::puts("Done.");
  const jobjectArray keyPair =
      throwIfFailed(env, ckRv) ? nullptr : newKeyPair(env, session, ckPubKey, ckPrvKey);

  std::puts("Clearing memory...");
  std::printf("    --> Public attr values done\n...");
  std::free(ckPubAttr);
  std::printf("    --> Public attr done\n...");
  std::printf("    --> Private attr value done\n...");
  std::free(ckPrvAttr);
  std::printf("    --> Private attr done\n...");
  std::puts("Done.");
  return keyPair;
}

// ---- Object creation and certificate installation ----

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_createObject(
    JNIEnv* env, jobject session, jintArray attrArray, jobjectArray valArray) {
  TRACE("JNI: start PKCS11Session.createObj... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionID = getSessionID(env, session);
  if (!ckSessionID) return nullptr;
  TRACE("(ses=%li)\n", *ckSessionID);
  CK_ATTRIBUTE* ckAttr = nullptr;
  CK_ULONG ckCount = 0;
  jint* attrA = buildTemplate(env, attrArray, valArray, Surplus::kRefused, &ckAttr, &ckCount);
  if (attrA == nullptr) return nullptr;
  releaseTypes(env, attrArray, attrA);

  CK_OBJECT_HANDLE ckObj = CK_INVALID_HANDLE;
  const CK_RV ckRv = bridge::createObject(*ckSessionID, &ckObj, ckAttr, ckCount);
  traceLine("JNI: createObject PKCS11Session.createObj...");
  jobject object = nullptr;
  if (!throwIfFailed(env, ckRv)) {
    TRACE("JNI: creating PKCS11Object (%li)...", ckObj);
    const Constructor objCostr = findConstructor(env, kTokenObjectClass, kTokenObjectInit);
    if (objCostr.init != nullptr) {
      object = env->NewObject(objCostr.cl, objCostr.init, session, CK2J_INT(ckObj));
      traceLine("OK");  // also when no object came of it
    }
  }
  freeValues(ckAttr, ckCount);
  traceLine("JNI: free PKCS11Session.createObj...");
  std::free(ckAttr);
  traceLine("JNI: free(ckAttr) PKCS11Session.createObj...");
  return object;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_installCertificate(
    JNIEnv* env, jobject session, jlong certID, jbyteArray certStr, jlong /*certLen*/,
    jstring subject, jstring sn, jstring issuer, jstring label) {
  std::printf("JNI: start PKCS11Session.createObj... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionID = getSessionID(env, session);
  if (!ckSessionID) return;
  std::printf("(ses=%li)\n", *ckSessionID);
  jbyte* cert = takeBytes(env, certStr);
  if (cert == nullptr) return;

  CK_OBJECT_CLASS classe = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type = CKC_X_509;
  auto slot = static_cast<CK_ULONG>(certID);
  constexpr int kFirstString = 4;
  constexpr int nbAttributes = 8;
  CK_ATTRIBUTE certTemplate[nbAttributes] = {
      {CKA_CLASS, &classe, sizeof classe},
      {CKA_CERTIFICATE_TYPE, &type, sizeof type},
      {kCertificateID, &slot, sizeof slot},
      {CKA_VALUE, cert, J2CK_INT(env->GetArrayLength(certStr))},
      {CKA_LABEL, nullptr, 0},
      {CKA_SUBJECT, nullptr, 0},
      {CKA_SERIAL_NUMBER, nullptr, 0},
      {CKA_ISSUER, nullptr, 0},
  };
  const jstring strings[nbAttributes] = {nullptr, nullptr, nullptr, nullptr,
                                         label,   subject, sn,      issuer};
  const char* taken[nbAttributes] = {};  // the module may write to the entries
  int filled = kFirstString;
  for (; filled < nbAttributes; ++filled) {
    taken[filled] = takeChars(env, strings[filled]);
    if (taken[filled] == nullptr) break;
    std::printf("Label: %s\n", taken[filled]);
    certTemplate[filled].pValue = moduleBytes(taken[filled]);
    certTemplate[filled].ulValueLen = std::strlen(taken[filled]);
  }
  if (filled == nbAttributes) {
    CK_OBJECT_HANDLE objectIdentifier = 0;
    const CK_RV ckRv =
        bridge::createObject(*ckSessionID, &objectIdentifier, certTemplate, nbAttributes);
    if (ckRv != CKR_OK) std::printf("C_CreateObject fails.");
    throwIfFailed(env, ckRv);
  }
  releaseBytes(env, certStr, cert);
  for (int i = kFirstString; i < filled; ++i) {
    env->ReleaseStringUTFChars(strings[i], taken[i]);
  }
}

// ---- Secret key generation ----

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_generateKey(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jintArray attrTypes,
    jobjectArray attrValues) {
  traceLine("JNI: start PKCS11Session.genKey...");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return nullptr;
  traceLine("JNI: session OK");
  CK_MECHANISM ckMech = mechanism(mech);
  traceLine("JNI: mechanism OK");
  traceLine("JNI: ckLen OK");
  CK_ULONG ckLen = 0;
  if (!templateLength(env, attrTypes, attrValues, Surplus::kIgnored, kDifferentLength, &ckLen)) {
    return nullptr;
  }
  CK_ATTRIBUTE* ckAttr = allocateTemplate(ckLen);
  traceLine("JNI: ckAttr OK");
  if (ckAttr == nullptr) {
    throwExc(env, kOutOfMemory);
    return nullptr;
  }
  jint* attrA = takeTypes(env, attrTypes);
  if (attrA == nullptr) {
    std::free(ckAttr);
    return nullptr;
  }
  traceLine("JNI: attrA OK");
  for (CK_ULONG i = 0; i < ckLen; ++i) {
    traceLine("JNI: inside loop");
    const jobject temp1 = env->GetObjectArrayElement(attrValues, static_cast<jsize>(i));
    traceLine("JNI: temp1 OK");
    const int res = J2CK_ATTR(env, attrA[i], temp1, &ckAttr[i]);
    valueBlocks(ckAttr, ckLen)[i] = res != 0 ? ckAttr[i].pValue : nullptr;
    TRACE("JNI: res?...");
    if (res == 0) {
      traceLine("... KO");
      TRACE("\nERROR: cannot parse passed object %li\n", i);
      releaseTypes(env, attrTypes, attrA);
      for (CK_ULONG j = 0; j < i; ++j) std::free(valueBlocks(ckAttr, ckLen)[j]);
      std::free(ckAttr);
      return nullptr;
    }
    traceLine("... OK");
  }
  traceLine("JNI: array OK");
  releaseTypes(env, attrTypes, attrA);
  TRACE("(session= %li)\n", *ckSessionNum);

  CK_OBJECT_HANDLE ckKey = CK_INVALID_HANDLE;
  jobject secretKey = nullptr;
  if (!throwIfFailed(env, bridge::generateKey(*ckSessionNum, &ckMech, ckAttr, ckLen, &ckKey))) {
    TRACE("JNI: creating 2 jobject PKCS11Object...");
    secretKey = newTokenObject(env, session, ckKey);
  }
  freeTemplate(ckAttr, ckLen);
  return secretKey;
}

// ---- Key wrapping ----

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_wrapKey(
    JNIEnv* env, jobject session, jint mech, jobject /*mechParameters*/, jobject wrappingKey,
    jobject key, jbyteArray outData, jint /*outOffset*/) {
  TRACE("JNI: start PKCS11Session.wrapKey... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return -1;
  traceLine("JNI: session OK");
  const std::optional<CK_OBJECT_HANDLE> ckKey = getObjectID(env, key);
  if (!ckKey) return -1;
  traceLine("JNI: key OK");
  const std::optional<CK_OBJECT_HANDLE> ckWrappingKey = getObjectID(env, wrappingKey);
  if (!ckWrappingKey) return -1;
  traceLine("JNI: wrappingKey OK");
  CK_MECHANISM ckMech = mechanism(mech);
  traceLine("JNI: mechanism OK");
  jbyte* ckOutData = takeBytes(env, outData);
  if (ckOutData == nullptr) return -1;
  CK_ULONG ckOutLen = J2CK_INT(env->GetArrayLength(outData));
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = bridge::wrapKey(*ckSessionNum, &ckMech, *ckWrappingKey, *ckKey,
                                     moduleBytes(ckOutData), &ckOutLen);
  traceLine("JNI: wrapOK OK");
  releaseBytes(env, outData, ckOutData);
  traceLine("JNI: release OK");
  return throwIfFailed(env, ckRv) ? -1 : CK2J_INT(ckOutLen);
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_unwrapKey(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject unwrappingKey,
    jbyteArray inkeyData, jint /*inkeyOffset*/, jint inkeyLen, jintArray attrTypes,
    jobjectArray attrValues) {
  TRACE("JNI: start PKCS11Session.unwrapKey... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return nullptr;
  const std::optional<CK_OBJECT_HANDLE> ckUnwrappingKey = getObjectID(env, unwrappingKey);
  if (!ckUnwrappingKey) return nullptr;
  CK_MECHANISM ckMech = mechanism(mech);
  CK_ATTRIBUTE* ckAttr = nullptr;
  CK_ULONG ckAttrLen = 0;
  jint* attrA = buildTemplate(env, attrTypes, attrValues, Surplus::kIgnored, &ckAttr, &ckAttrLen);
  if (attrA == nullptr) return nullptr;
  releaseTypes(env, attrTypes, attrA);
  jbyte* ckInkeyData = takeInput(env, inkeyData, inkeyLen);
  if (ckInkeyData == nullptr) {
    freeTemplate(ckAttr, ckAttrLen);
    return nullptr;
  }
  TRACE("(session= %li)\n", *ckSessionNum);

  CK_OBJECT_HANDLE ckKey = CK_INVALID_HANDLE;
  const CK_RV ckRv =
      bridge::unwrapKey(*ckSessionNum, &ckMech, *ckUnwrappingKey, moduleBytes(ckInkeyData),
                        J2CK_INT(inkeyLen), ckAttr, ckAttrLen, &ckKey);
  releaseBytes(env, inkeyData, ckInkeyData);
  freeTemplate(ckAttr, ckAttrLen);
  if (throwIfFailed(env, ckRv)) return nullptr;
  TRACE("JNI: creating PKCS11Object (%li)...", ckKey);
  const jobject object = newTokenObject(env, session, ckKey);
  if (object != nullptr) traceLine("OK");
  return object;
}
