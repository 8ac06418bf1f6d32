// SPDX-License-Identifier: Apache-2.0
// The native methods of NativePKCS11Session: login and PINs, cryptographic operations, object
// search and creation, key generation and wrapping.
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"

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

/// close, logout and findObjectsFinal.
void callInSession(JNIEnv* env, jobject session, const char* startText,
                   CK_RV (*call)(CK_SESSION_HANDLE)) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = beginInSession(env, session, startText);
  if (ckSessionNum) throwIfFailed(env, call(*ckSessionNum));
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

/// sign and decrypt: without room in `outData` (null or empty) the call asks for the length.
jint signOrDecrypt(JNIEnv* env, jobject session, jbyteArray inData, jint inLen, jbyteArray outData,
                   const char* startText, DataCall call) {
  TRACE("%s", startText);
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return -1;
  Bytes ckInData = takeBytes(env, inData, inLen, CKR_ARGUMENTS_BAD);
  if (ckInData == nullptr) return -1;
  Bytes ckOutData;
  CK_ULONG ckOutLen = 0;
  if (outData != nullptr) {
    ckOutData = takeBytes(env, outData);
    if (ckOutData == nullptr) return -1;
    ckOutLen = J2CK_INT(env->GetArrayLength(outData));
  }
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = call(*ckSessionNum, moduleBytes(ckInData), J2CK_INT(inLen),
                          ckOutLen != 0 ? moduleBytes(ckOutData) : nullptr, &ckOutLen);
  ckInData.reset();
  ckOutData.reset();
  return throwIfFailed(env, ckRv) ? -1 : CK2J_INT(ckOutLen);
}

}  // namespace

// ---- Session lifecycle, login and PINs ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_close(JNIEnv* env,
                                                                            jobject session) {
  callInSession(env, session, "JNI: start PKCS11Session.closeSession... ", bridge::closeSession);
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
  return created(newObject(
      env, "it/quarvel/pkcs11/PKCS11SessionInfo", "(III)V", CK2J_INT(ckSessionInfo.state),
      CK2J_FLAGS(ckSessionInfo.flags), CK2J_INT(ckSessionInfo.ulDeviceError)));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_login(
    JNIEnv* env, jobject session, jboolean isSO, jstring pin) {
  TRACE("JNI: start PKCS11Session.login... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return;
  const Chars utf_str = takeChars(env, pin);
  if (utf_str == nullptr) return;
  TRACE("(session= %li)\n", *ckSessionNum);
  throwIfFailed(env, bridge::login(*ckSessionNum, userType(isSO), moduleBytes(utf_str)));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_logout(JNIEnv* env,
                                                                             jobject session) {
  callInSession(env, session, "JNI: start PKCS11Session.logout... ", bridge::logout);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_initPIN(
    JNIEnv* env, jobject session, jstring newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.initPin... ");
  if (!ckSessionNum) return;
  const Chars newPinStr = takeChars(env, newPin);
  if (newPinStr == nullptr) return;
  throwIfFailed(env, bridge::initPin(*ckSessionNum, moduleBytes(newPinStr)));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setPIN(
    JNIEnv* env, jobject session, jstring oldPin, jstring newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.setPin... ");
  if (!ckSessionNum) return;
  Chars oldPinStr = takeChars(env, oldPin);
  if (oldPinStr == nullptr) return;
  const Chars newPinStr = takeChars(env, newPin);
  if (newPinStr == nullptr) return;
  throwIfFailed(env, bridge::setPin(*ckSessionNum, moduleBytes(oldPinStr), moduleBytes(newPinStr)));
  oldPinStr.reset();  // the older one first
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_loginellips(
    JNIEnv* env, jobject session, jboolean isSO, jbyteArray pin) {
  TRACE("JNI: start PKCS11Session.login ellips... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return;
  Bytes ckPin = takeBytes(env, pin);
  if (ckPin == nullptr) return;
  const CK_ULONG ckPinLen = J2CK_INT(env->GetArrayLength(pin));
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv =
      bridge::loginellips(*ckSessionNum, userType(isSO), moduleBytes(ckPin), ckPinLen);
  ckPin.reset();
  throwIfFailed(env, ckRv);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setPINellips(
    JNIEnv* env, jobject session, jbyteArray oldPin, jbyteArray newPin) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.setPin ellips... ");
  if (!ckSessionNum) return;
  Bytes ckoldPin = takeBytes(env, oldPin);
  if (ckoldPin == nullptr) return;
  const CK_ULONG ckoldPinLen = J2CK_INT(env->GetArrayLength(oldPin));
  Bytes cknewPin = takeBytes(env, newPin);
  if (cknewPin == nullptr) return;
  const CK_ULONG cknewPinLen = J2CK_INT(env->GetArrayLength(newPin));
  const CK_RV ckRv = bridge::setPinellips(
      *ckSessionNum, moduleBytes(ckoldPin), ckoldPinLen, moduleBytes(cknewPin), cknewPinLen);
  ckoldPin.reset();
  cknewPin.reset();
  throwIfFailed(env, ckRv);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_loginAuthPath(
    JNIEnv* env, jobject session, jboolean isSO) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum =
      beginInSession(env, session, "JNI: start PKCS11Session.login... ");
  if (ckSessionNum) throwIfFailed(env, bridge::loginAuthPath(*ckSessionNum, userType(isSO)));
}

// ---- Cryptographic operations ----

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_signInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(
      env, session, mech, key, "JNI: start PKCS11Session.signInit... ", bridge::signInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_sign(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  return signOrDecrypt(
      env, session, inData, inLen, outData, "JNI: start PKCS11Session.sign... ", bridge::sign);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encryptInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(
      env, session, mech, key, "JNI: start PKCS11Session.encryptInit... ", bridge::encryptInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_encrypt(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  TRACE("JNI: start PKCS11Session.encrypt... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return -1;
  Bytes ckInData = takeBytes(env, inData, inLen, CKR_ARGUMENTS_BAD);
  if (ckInData == nullptr) return -1;
  Bytes ckOutData = takeBytes(env, outData, inLen, CKR_BUFFER_TOO_SMALL);
  if (ckOutData == nullptr) return -1;
  CK_ULONG ckOutLen = J2CK_INT(inLen);
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = bridge::encrypt(
      *ckSessionNum, moduleBytes(ckInData), J2CK_INT(inLen), moduleBytes(ckOutData), &ckOutLen);
  ckInData.reset();
  ckOutData.reset();
  return throwIfFailed(env, ckRv) ? -1 : CK2J_INT(ckOutLen);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decryptInit(
    JNIEnv* env, jobject session, jint mech, jobject /*param*/, jobject key) {
  startOperation(
      env, session, mech, key, "JNI: start PKCS11Session.decryptInit... ", bridge::decryptInit);
}

JNIEXPORT jint JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_decrypt(
    JNIEnv* env, jobject session, jbyteArray inData, jint /*inOffset*/, jint inLen,
    jbyteArray outData, jint /*outOffset*/) {
  return signOrDecrypt(env, session, inData, inLen, outData, "JNI: start PKCS11Session.decrypt... ",
                       bridge::decrypt);
}

// ---- Operations that are not offered ----

// clang-format off
QUARVEL_REFUSED(void, Session_signUpdate, "Not supported YET", void(), jobject, jbyteArray, jint, jint)
QUARVEL_REFUSED(jint, Session_signFinal, "Not supported YET", -1, jobject, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jbyteArray, Session_getOperationState, jobject)
QUARVEL_NOT_SUPPORTED(void, Session_setOperationState, jobject, jbyteArray, jobject, jobject)
QUARVEL_NOT_SUPPORTED(jint, Session_encryptUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_encryptFinal, jobject, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_decryptUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_decryptFinal, jobject, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(void, Session_digestInit, jobject, jint, jobject)
QUARVEL_NOT_SUPPORTED(jint, Session_digest, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(void, Session_digestUpdate, jobject, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(void, Session_digestKey, jobject, jobject)
QUARVEL_NOT_SUPPORTED(jint, Session_digestFinal, jobject, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(void, Session_signRecoverInit, jobject, jint, jobject, jobject)
QUARVEL_NOT_SUPPORTED(jint, Session_signRecover, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(void, Session_verifyInit, jobject, jint, jobject, jobject)
QUARVEL_NOT_SUPPORTED(jboolean, Session_verify, jobject, jbyteArray, jint, jint, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(void, Session_verifyUpdate, jobject, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(jboolean, Session_verifyFinal, jobject, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(void, Session_verifyRecoverInit, jobject, jint, jobject, jobject)
QUARVEL_NOT_SUPPORTED(jint, Session_verifyRecover, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_digestEncryptUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_decryptDigestUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_signEncryptUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jint, Session_decryptVerifyUpdate, jobject, jbyteArray, jint, jint, jbyteArray, jint)
QUARVEL_NOT_SUPPORTED(jobject, Session_deriveKey, jobject, jint, jobject, jobject, jintArray, jobjectArray)
QUARVEL_NOT_SUPPORTED(void, Session_seedRandom, jobject, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(void, Session_generateRandom, jobject, jbyteArray, jint, jint)
QUARVEL_NOT_SUPPORTED(jboolean, Session_getFunctionStatus, jobject)
QUARVEL_NOT_SUPPORTED(void, Session_cancelFunction, jobject)
// clang-format on

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
  Template ckAttr;
  const Types attrA = buildTemplate(env, attrArray, valArray, Surplus::kRefused, ckAttr);
  if (attrA == nullptr) return;
  throwIfFailed(env, bridge::findObjectsInit(*ckSessionNum, ckAttr.get(), entryCount(ckAttr)));
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
  return created(newTokenObject(env, session, ckObj));
}

JNIEXPORT void JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_findObjectsFinal(JNIEnv* env, jobject session) {
  callInSession(
      env, session, "JNI: start PKCS11Session.findObjectsFinal... ", bridge::findObjectsFinal);
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
  Template ckPrvAttr;  // the public template, declared after it, is freed first
  Template ckPubAttr = newTemplate(env, ckPubLen);
  if (ckPubAttr == nullptr) return nullptr;
  ckPrvAttr = newTemplate(env, ckPrvLen);
  if (ckPrvAttr == nullptr) return nullptr;

  traceLine("JNI: parse public values...");
  if (fillTemplate(env, pubAttrs, pubVals, ckPubAttr) == nullptr) return nullptr;
  traceLine("JNI: parse private values...");
  if (fillTemplate(env, prvAttrs, prvVals, ckPrvAttr) == nullptr) {
    ckPrvAttr.reset();  // here alone the private one is first
    return nullptr;
  }

  CK_OBJECT_HANDLE ckPubKey = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE ckPrvKey = CK_INVALID_HANDLE;
  const CK_RV ckRv = bridge::generateKeyPair(*ckSessionNum, &ckMech, ckPubAttr.get(), ckPubLen,
                                             ckPrvAttr.get(), ckPrvLen, &ckPubKey, &ckPrvKey);
  return throwIfFailed(env, ckRv) ? nullptr : newKeyPair(env, session, ckPubKey, ckPrvKey);
}

// ---- Object creation ----

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_createObject(
    JNIEnv* env, jobject session, jintArray attrArray, jobjectArray valArray) {
  TRACE("JNI: start PKCS11Session.createObj... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionID = getSessionID(env, session);
  if (!ckSessionID) return nullptr;
  TRACE("(ses=%li)\n", *ckSessionID);
  Template ckAttr;
  if (buildTemplate(env, attrArray, valArray, Surplus::kRefused, ckAttr) == nullptr) return nullptr;

  CK_OBJECT_HANDLE ckObj = CK_INVALID_HANDLE;
  const CK_RV ckRv = bridge::createObject(*ckSessionID, &ckObj, ckAttr.get(), entryCount(ckAttr));
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
  freeValues(ckAttr);
  traceLine("JNI: free PKCS11Session.createObj...");
  ckAttr.reset();
  traceLine("JNI: free(ckAttr) PKCS11Session.createObj...");
  return object;
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
  Template ckAttr;
  if (buildTemplate(env, attrTypes, attrValues, Surplus::kIgnored, ckAttr, Steps::kTraced) ==
      nullptr) {
    return nullptr;
  }
  TRACE("(session= %li)\n", *ckSessionNum);

  CK_OBJECT_HANDLE ckKey = CK_INVALID_HANDLE;
  const CK_RV ckRv =
      bridge::generateKey(*ckSessionNum, &ckMech, ckAttr.get(), entryCount(ckAttr), &ckKey);
  if (throwIfFailed(env, ckRv)) return nullptr;
  TRACE("JNI: creating 2 jobject PKCS11Object...");
  return newTokenObject(env, session, ckKey);
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
  Bytes ckOutData = takeBytes(env, outData);
  if (ckOutData == nullptr) return -1;
  CK_ULONG ckOutLen = J2CK_INT(env->GetArrayLength(outData));
  TRACE("(session= %li)\n", *ckSessionNum);
  const CK_RV ckRv = bridge::wrapKey(
      *ckSessionNum, &ckMech, *ckWrappingKey, *ckKey, moduleBytes(ckOutData), &ckOutLen);
  traceLine("JNI: wrapOK OK");
  ckOutData.reset();
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
  Template ckAttr;
  if (buildTemplate(env, attrTypes, attrValues, Surplus::kIgnored, ckAttr) == nullptr) {
    return nullptr;
  }
  Bytes ckInkeyData = takeBytes(env, inkeyData, inkeyLen, CKR_ARGUMENTS_BAD);
  if (ckInkeyData == nullptr) return nullptr;
  TRACE("(session= %li)\n", *ckSessionNum);

  CK_OBJECT_HANDLE ckKey = CK_INVALID_HANDLE;
  const CK_RV ckRv =
      bridge::unwrapKey(*ckSessionNum, &ckMech, *ckUnwrappingKey, moduleBytes(ckInkeyData),
                        J2CK_INT(inkeyLen), ckAttr.get(), entryCount(ckAttr), &ckKey);
  ckInkeyData.reset();
  ckAttr.reset();
  if (throwIfFailed(env, ckRv)) return nullptr;
  TRACE("JNI: creating PKCS11Object (%li)...", ckKey);
  return created(newTokenObject(env, session, ckKey));
}
