// SPDX-License-Identifier: Apache-2.0
// The native methods of NativePKCS11Slot: one slot, its token, and the sessions opened on it.
#include "it_quarvel_pkcs11_nat_NativePKCS11Slot.h"

#include <cstring>
#include <optional>

#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

/// The opening of a slot method: start text, slot ID, its trace. Most share the text of getInfo.
std::optional<CK_SLOT_ID> beginOnSlot(JNIEnv* env, jobject slot,
                                      const char* startText = "JNI: start PKCS11Slot.getInfo... ") {
  TRACE("%s", startText);
  const std::optional<CK_SLOT_ID> ckSlot = getSlotID(env, slot);
  if (ckSlot) TRACE("(slot= %li)\n", *ckSlot);
  return ckSlot;
}

/// The opening of a method that builds its result from the token information.
bool readTokenInfo(JNIEnv* env, jobject slot, CK_TOKEN_INFO* ckInfo) {
  const std::optional<CK_SLOT_ID> ckSlot = beginOnSlot(env, slot);
  if (!ckSlot || throwIfFailed(env, bridge::getTokenInfo(*ckSlot, ckInfo))) return false;
  TRACE("JNI: creating jobject PKCS11TokenInfo...");
  return true;
}

/// Narrows `count` values to Java ints within their own block, so that one region call takes them;
/// four at a time, of which compilers make one store.
const jint* narrow(CK_ULONG* values, CK_ULONG count) {
  using Int [[gnu::may_alias]] = jint;
  auto* ints = reinterpret_cast<Int*>(values);
  CK_ULONG i = 0;
  for (jint four[4]; i + 4 <= count; i += 4) {
    for (CK_ULONG j = 0; j < 4; ++j) four[j] = CK2J_INT(values[i + j]);
    std::memcpy(ints + i, four, sizeof four);
  }
  for (; i < count; ++i) ints[i] = CK2J_INT(values[i]);
  return ints;
}

}  // namespace

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_getInfo(JNIEnv* env,
                                                                              jobject slot) {
  const std::optional<CK_SLOT_ID> ckSlot = beginOnSlot(env, slot);
  CK_SLOT_INFO ckInfo = {};
  if (!ckSlot || throwIfFailed(env, bridge::getSlotInfo(*ckSlot, &ckInfo))) return nullptr;
  TRACE("JNI: creating jobject PKCS11SlotInfo...");
  return created(newObject(
      env, "it/quarvel/pkcs11/PKCS11SlotInfo", "(Ljava/lang/String;Ljava/lang/String;III)V",
      ckInfo.slotDescription, ckInfo.manufacturerID, CK2J_FLAGS(ckInfo.flags),
      CK2J_VER(ckInfo.hardwareVersion), CK2J_VER(ckInfo.firmwareVersion)));
}

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_getTokenInfo(JNIEnv* env,
                                                                                   jobject slot) {
  CK_TOKEN_INFO ckInfo = {};
  if (!readTokenInfo(env, slot, &ckInfo)) return nullptr;
  return created(newObject(
      env, "it/quarvel/pkcs11/PKCS11TokenInfo",
      "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
      "IIIIIIIIIIIIILjava/lang/String;)V",
      ckInfo.label, ckInfo.manufacturerID, ckInfo.model, ckInfo.serialNumber,
      CK2J_FLAGS(ckInfo.flags), CK2J_INT(ckInfo.ulMaxSessionCount), CK2J_INT(ckInfo.ulSessionCount),
      CK2J_INT(ckInfo.ulMaxRwSessionCount), CK2J_INT(ckInfo.ulRwSessionCount),
      CK2J_INT(ckInfo.ulMaxPinLen), CK2J_INT(ckInfo.ulMinPinLen),
      CK2J_INT(ckInfo.ulTotalPublicMemory), CK2J_INT(ckInfo.ulFreePublicMemory),
      CK2J_INT(ckInfo.ulTotalPrivateMemory), CK2J_INT(ckInfo.ulFreePrivateMemory),
      CK2J_VER(ckInfo.hardwareVersion), CK2J_VER(ckInfo.firmwareVersion), ckInfo.utcTime));
}

JNIEXPORT jstring JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_getTokenSN(JNIEnv* env,
                                                                                 jobject slot) {
  CK_TOKEN_INFO ckInfo = {};
  return readTokenInfo(env, slot, &ckInfo) ? CK2J_STR(env, ckInfo.serialNumber) : nullptr;
}

JNIEXPORT jintArray JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_getMechanismList(JNIEnv* env, jobject slot) {
  const std::optional<CK_SLOT_ID> ckSlot =
      beginOnSlot(env, slot, "JNI: start PKCS11Slot.getMechList... ");
  CK_MECHANISM_TYPE_PTR ckMechs = nullptr;
  CK_ULONG ckCount = 0;
  if (!ckSlot || throwIfFailed(env, bridge::getMechanismList(*ckSlot, &ckMechs, &ckCount))) {
    return nullptr;
  }
  HeapBlock<CK_MECHANISM_TYPE> mechs(ckMechs);
  if (!fitsJavaArray(env, ckCount, bridge::CKR_ZOV_NOSPACE)) return nullptr;
  TRACE("JNI: creating array of %li Mechanism...", ckCount);
  const jintArray array = env->NewIntArray(CK2J_INT(ckCount));
  if (array == nullptr) return nullptr;
  env->SetIntArrayRegion(array, 0, CK2J_INT(ckCount), narrow(mechs.get(), ckCount));
  mechs.reset();
  traceLine("OK");
  return array;
}

JNIEXPORT jobject JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_getMechanismInfo(JNIEnv* env, jobject slot, jint mech) {
  TRACE("JNI: start PKCS11Slot.getMechanismInfo... ");
  const std::optional<CK_SLOT_ID> ckSlot = getSlotID(env, slot);
  if (!ckSlot) return nullptr;
  const CK_MECHANISM_TYPE ckMech = J2CK_INT(mech);
  TRACE("(slot= %li) (mach=%li)\n", *ckSlot, ckMech);
  CK_MECHANISM_INFO ckInfo = {};
  if (throwIfFailed(env, bridge::getMechanismInfo(*ckSlot, ckMech, &ckInfo))) return nullptr;

  TRACE("JNI: creating jobject PKCS11MechanismInfo...");
  return created(newObject(
      env, "it/quarvel/pkcs11/PKCS11MechanismInfo", "(III)V", CK2J_INT(ckInfo.ulMinKeySize),
      CK2J_INT(ckInfo.ulMaxKeySize), CK2J_FLAGS(ckInfo.flags)));
}

QUARVEL_NOT_SUPPORTED(void, Slot_initToken, jobject, jstring, jstring)

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_openSession(
    JNIEnv* env, jobject slot, jint flags, jobject /*callback*/, jobject /*usrData*/) {
  const std::optional<CK_SLOT_ID> ckSlot = beginOnSlot(env, slot);
  CK_SESSION_HANDLE ckSession = CK_INVALID_HANDLE;
  if (!ckSlot || throwIfFailed(env, bridge::openSession(*ckSlot, J2CK_FLAGS(flags), &ckSession))) {
    return nullptr;
  }
  TRACE("JNI: creating jobject NativePKCS11Session...");
  return created(newSession(env, slot, ckSession));
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11Slot_closeAllSessions(JNIEnv* env,
                                                                                    jobject slot) {
  const std::optional<CK_SLOT_ID> ckSlot =
      beginOnSlot(env, slot, "JNI: start PKCS11Slot.closeAllSessions... ");
  if (ckSlot) throwIfFailed(env, bridge::closeAllSessions(*ckSlot));
}
