// SPDX-License-Identifier: Apache-2.0
// The native methods for one maker's card: its life-cycle status, its own application, key pairs
// and certificates, and the lookup of a credential. They stand in Java's module and session
// classes.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>

#include "it_quarvel_pkcs11_nat_NativePKCS11.h"
#include "it_quarvel_pkcs11_nat_NativePKCS11Session.h"
#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

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

/// The card's Identrus application object and its life-cycle byte, as the bridge returned it.
struct Application {
  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE object;
  HeapBlock<signed char> status;
};

/// The opening of getCardStatus and setCardStatus, traced in any case; empty with an exception
/// pending when the status cannot be read.
std::optional<Application> readLifeCycle(JNIEnv* env, jobject session, const char* startText) {
  std::printf("%s", startText);
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return std::nullopt;
  std::printf("(session= %li)\n", *ckSessionNum);
  const CK_OBJECT_HANDLE identrusApplication = getIdentrusApplication(*ckSessionNum);
  std::printf("Identrus application id = %i\n", CK2J_INT(identrusApplication));

  signed char applicationLifeCycle = 0;
  CK_ATTRIBUTE lifeCycle = {kLifeCycle, &applicationLifeCycle, sizeof applicationLifeCycle};
  const CK_RV ckRv = bridge::getAttributeValue(*ckSessionNum, identrusApplication, &lifeCycle);
  if (throwIfFailed(env, ckRv)) return std::nullopt;
  return Application{*ckSessionNum, identrusApplication,
                     HeapBlock<signed char>(static_cast<signed char*>(lifeCycle.pValue))};
}

/// The result of the credential lookup; a handle of 0 stands for an object that is not there.
struct Credential {
  CK_SLOT_ID slotID;
  CK_SESSION_HANDLE ckSession;
  CK_OBJECT_HANDLE ckObj[3];  // private key, public key, certificate
};

/// The Java objects of a credential: three token objects (null for none) that share one new
/// session on one new slot; null with the virtual machine's error.
jobjectArray newCredential(JNIEnv* env, jobject module, const Credential& found) {
  traceLine("JNI: creating PKCS11Slot");
  const Constructor slotCostr = findConstructor(env, kSlotClass, kSlotInit);
  if (slotCostr.init == nullptr) return nullptr;
  const jobject slot = newSlot(env, slotCostr, module, found.slotID);
  if (slot == nullptr) return nullptr;
  traceLine(" slot OK");

  TRACE("JNI: creating PKCS11Session...");
  const jobject session = newSession(env, slot, found.ckSession);
  if (session == nullptr) return nullptr;
  traceLine(" session OK");

  TRACE("JNI: creating array PKCS11Object...");
  const Constructor objCostr = findConstructor(env, kTokenObjectClass, kTokenObjectInit);
  if (objCostr.init == nullptr) return nullptr;
  const jobjectArray objArray = env->NewObjectArray(3, objCostr.cl, nullptr);
  if (objArray == nullptr) return nullptr;
  for (jint i = 0; i < 3; ++i) {
    TRACE("JNI: adding element %li ...", static_cast<long>(i));
    jobject object = nullptr;
    if (found.ckObj[i] == CK_INVALID_HANDLE) {
      TRACE("NULL found");
    } else {
      TRACE("%li found", found.ckObj[i]);
      object = env->NewObject(objCostr.cl, objCostr.init, session, CK2J_INT(found.ckObj[i]));
      if (object == nullptr) return nullptr;
    }
    env->SetObjectArrayElement(objArray, i, object);
    traceLine(" OK");
  }
  return objArray;
}

}  // namespace

// ---- Life cycle and application ----

JNIEXPORT jint JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Session_getCardStatus(JNIEnv* env, jobject session) {
  std::optional<Application> application =
      readLifeCycle(env, session, "JNI: start PKCS11Session.getCardStatus oberthur... ");
  if (!application) return -1;
  const signed char c = application->status[0];
  application->status.reset();
  std::printf("lifeCycle status %d\n", c);
  return c;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_setCardStatus(
    JNIEnv* env, jobject session, jint status) {
  std::optional<Application> application =
      readLifeCycle(env, session, "JNI: start PKCS11Session.setCardStatus oberthur... ");
  if (!application) return;
  std::printf("Current lifeCycle status %d\n", application->status[0]);
  application->status.reset();

  if (status == kPreFirstUse) std::puts("Setting status to pre.first use");
  auto applicationLifeCycle = static_cast<unsigned char>(status);
  CK_ATTRIBUTE lifeCycle = {kLifeCycle, &applicationLifeCycle, sizeof applicationLifeCycle};
  std::printf("Setting lifeCycle status to %d\n", static_cast<signed char>(applicationLifeCycle));
  const CK_RV ckRv =
      bridge::setAttributeValue(application->session, application->object, &lifeCycle, 1);
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

// ---- Key pairs and certificates ----

JNIEXPORT jobjectArray JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_generateKeyPairOB(
    JNIEnv* env, jobject session, jint mech, jboolean isIdentity) {
  const std::optional<CK_SESSION_HANDLE> ckSessionNum = getSessionID(env, session);
  if (!ckSessionNum) return nullptr;
  TRACE("JNI: start PKCS11Session.genKeyPair... ");
  CK_MECHANISM ckMech = {J2CK_INT(mech), nullptr, 0};
  TRACE("(session= %li)\n", *ckSessionNum);

  constexpr CK_ULONG kKeyPairEntries = 4;
  Template ckPubAttr = newTemplate(env, kKeyPairEntries);
  if (ckPubAttr == nullptr) return nullptr;
  Template ckPrvAttr = newTemplate(env, kKeyPairEntries);
  if (ckPrvAttr == nullptr) return nullptr;

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
  const CK_RV ckRv = bridge::generateKeyPair(
      *ckSessionNum, &ckMech, ckPubAttr.get(), kKeyPairEntries, ckPrvAttr.get(), kKeyPairEntries,
      &ckPubKey, &ckPrvKey);
  std::puts("Done.");
  const jobjectArray keyPair =
      throwIfFailed(env, ckRv) ? nullptr : newKeyPair(env, session, ckPubKey, ckPrvKey);

  std::puts("Clearing memory...");
  std::printf("    --> Public attr values done\n...");
  ckPubAttr.reset();
  std::printf("    --> Public attr done\n...");
  std::printf("    --> Private attr value done\n...");
  ckPrvAttr.reset();
  std::printf("    --> Private attr done\n...");
  std::puts("Done.");
  return keyPair;
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Session_installCertificate(
    JNIEnv* env, jobject session, jlong certID, jbyteArray certStr, jlong /*certLen*/,
    jstring subject, jstring sn, jstring issuer, jstring label) {
  std::printf("JNI: start PKCS11Session.createObj... ");
  const std::optional<CK_SESSION_HANDLE> ckSessionID = getSessionID(env, session);
  if (!ckSessionID) return;
  std::printf("(ses=%li)\n", *ckSessionID);
  Bytes cert = takeBytes(env, certStr);
  if (cert == nullptr) return;

  CK_OBJECT_CLASS classe = CKO_CERTIFICATE;
  CK_CERTIFICATE_TYPE type = CKC_X_509;
  auto slot = static_cast<CK_ULONG>(certID);
  constexpr std::size_t kFirstString = 4;
  CK_ATTRIBUTE certTemplate[] = {
      {CKA_CLASS, &classe, sizeof classe},
      {CKA_CERTIFICATE_TYPE, &type, sizeof type},
      {kCertificateID, &slot, sizeof slot},
      {CKA_VALUE, cert.get(), J2CK_INT(env->GetArrayLength(certStr))},
      {CKA_LABEL, nullptr, 0},
      {CKA_SUBJECT, nullptr, 0},
      {CKA_SERIAL_NUMBER, nullptr, 0},
      {CKA_ISSUER, nullptr, 0},
  };
  const jstring strings[] = {label, subject, sn, issuer};
  Chars texts[std::size(strings)];
  std::size_t taken = 0;
  for (; taken < std::size(strings); ++taken) {
    texts[taken] = takeChars(env, strings[taken]);
    if (texts[taken] == nullptr) break;
    std::printf("Label: %s\n", texts[taken].get());
    CK_ATTRIBUTE& entry = certTemplate[kFirstString + taken];
    entry.pValue = moduleBytes(texts[taken]);
    entry.ulValueLen = std::strlen(texts[taken].get());
  }
  if (taken == std::size(strings)) {
    CK_OBJECT_HANDLE objectIdentifier = 0;
    const CK_RV ckRv = bridge::createObject(
        *ckSessionID, &objectIdentifier, certTemplate, std::size(certTemplate));
    if (ckRv != CKR_OK) std::printf("C_CreateObject fails.");
    throwIfFailed(env, ckRv);
  }
  cert.reset();
  for (Chars& text : texts) text.reset();
}

// ---- The lookup of a credential ----

JNIEXPORT jobjectArray JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_getRSAcredential(
    JNIEnv* env, jobject obj, jstring alias, jint flags, jstring pin) {
  traceLine("JNI: start getRSAcredential... ");
  Chars utf_alias = takeChars(env, alias);
  if (utf_alias == nullptr) return nullptr;
  const CK_ULONG utf_aliaslen = std::strlen(utf_alias.get());
  TRACE(" alias len =%li \n", utf_aliaslen);
  const CK_FLAGS ckFlags = J2CK_FLAGS(flags);
  TRACE("JNI: pin is null ?... ");
  const bool isNullPin = pin == nullptr;
  Chars utf_str_pin = isNullPin ? Chars() : charsOf(env, pin);
  if (!isNullPin && utf_str_pin == nullptr) {
    utf_alias.reset();
    throwExc(env, kInternalError);
    return nullptr;
  }
  const CK_ULONG utf_str_pinlen = isNullPin ? 0 : std::strlen(utf_str_pin.get());
  TRACE(" pin len =%li \n", utf_str_pinlen);

  Credential found = {};
  const CK_RV ckRv = bridge::getRSACred(
      moduleBytes(utf_alias), utf_aliaslen, ckFlags, moduleBytes(utf_str_pin), utf_str_pinlen,
      &found.slotID, &found.ckSession, &found.ckObj[0], &found.ckObj[1], &found.ckObj[2]);
  utf_alias.reset();
  utf_str_pin.reset();
  if (ckRv != CKR_OK) {
    throwCKExcAS(env, ckRv);
    return nullptr;
  }
  return newCredential(env, obj, found);
}
