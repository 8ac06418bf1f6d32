// The native methods of NativePKCS11: the loaded module as a whole.
#include "it_quarvel_pkcs11_nat_NativePKCS11.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "jniUtil.h"
#include "pkcs11Bridge.h"
#include "trace.h"

namespace {

/// Replaces the standard output stream, and with it that of the whole process, by the trace log.
void redirectOutput() {
  // A process that was started without a standard output has a file of the virtual machine's own
  // as descriptor 1, which it reads from.
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  if (flags != -1 && (flags & O_ACCMODE) == O_RDONLY) return;
  if (std::FILE* log = std::freopen("/var/tmp/vorlenk0.log", "a+", stdout); log != nullptr) {
    // Line buffered, so that the last line before a crash inside a module is in the log.
    std::setvbuf(log, nullptr, _IOLBF, 0);
    return;
  }
  // The stream is closed now, its descriptor free: the next file that the process opens would
  // receive what Java prints.
  const int null = open("/dev/null", O_WRONLY);
  if (null == -1) return;
  if (null < STDOUT_FILENO) fcntl(null, F_DUPFD, STDOUT_FILENO);
  if (null != STDOUT_FILENO) close(null);
}

/// Sends standard output to the trace log from here on and switches tracing on.
void startTrace() {
  std::puts("getenv done ");
  std::printf("redirecting stdout to /var/tmp/vorlenk0.log ");
  redirectOutput();
  std::puts("setting debug to 1");
  debug = 1;
}

/// A slot object for the ID, whose Java form is traced; null with the virtual machine's error.
jobject newSlot(JNIEnv* env, const Constructor& slotCostr, jobject module, CK_SLOT_ID slotID) {
  const jint slotN = CK2J_SLOT(slotID);
  TRACE(" value= %li ...", static_cast<long>(slotN));
  return env->NewObject(slotCostr.cl, slotCostr.init, module, slotN);
}

/// What the credential lookup found; a handle of 0 stands for an object that is not there.
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

// ---- Library lifecycle ----

JNIEXPORT jlong JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_loadPKCS11Library(
    JNIEnv* env, jclass /*cla*/, jstring libName) {
  if (std::getenv("PKCS11_ZOV_DEBUG") != nullptr) startTrace();
  TRACE("JNI: start loadPKCS11Library ");
  const Chars path = takeChars(env, libName, "Internal error (Null parameter)");
  if (path == nullptr) return 0;
  TRACE("(arg= %s)\n", path.get());

  CK_FUNCTION_LIST_PTR funcList = nullptr;
  if (!throwIfFailed(env, bridge::loadLib(path.get(), &funcList))) {
    TRACE("JNI: library loaded: (FuncList ptr=%lx)\n", reinterpret_cast<unsigned long>(funcList));
    traceLine("JNI: end loadPKCS11Library");
  }
  return CK2J_PTR(funcList);
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_libInitialize(JNIEnv* env,
                                                                             jobject /*obj*/) {
  traceLine("JNI: PKCS11.libInitialize");
  throwIfFailed(env, bridge::initLib());
}

JNIEXPORT void JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_libFinalize(JNIEnv* /*env*/,
                                                                           jobject /*obj*/) {
  traceLine("JNI: PKCS11.libFinalize");
  bridge::finalizeLib();
}

JNIEXPORT jstring JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11_getBridgeVersion(JNIEnv* env, jobject /*obj*/) {
  static const char bridgev[] = "1.16";
  TRACE("JNI: start PKCS11.getBridgeVersion: %s\n", bridgev);
  return env->NewStringUTF(bridgev);
}

// ---- Module information ----

JNIEXPORT jobject JNICALL Java_it_quarvel_pkcs11_nat_NativePKCS11_getInfo(JNIEnv* env,
                                                                          jobject /*obj*/) {
  traceLine("JNI: start PKCS11.getInfo");
  CK_INFO ckInfo = {};
  if (throwIfFailed(env, bridge::getInfo(&ckInfo))) return nullptr;

  TRACE("JNI: creating jobject PKCS11Info...");
  return created(newObject(
      env, "it/quarvel/pkcs11/PKCS11Info", "(ILjava/lang/String;ILjava/lang/String;I)V",
      CK2J_VER(ckInfo.cryptokiVersion), ckInfo.manufacturerID, CK2J_FLAGS(ckInfo.flags),
      ckInfo.libraryDescription, CK2J_VER(ckInfo.libraryVersion)));
}

JNIEXPORT jobjectArray JNICALL
Java_it_quarvel_pkcs11_nat_NativePKCS11_getSlotList(JNIEnv* env, jobject obj, jboolean tokenIn) {
  traceLine("JNI: start PKCS11.getSlotList");
  CK_SLOT_ID_PTR ckSlots = nullptr;
  CK_ULONG ckCount = 0;
  if (throwIfFailed(env, bridge::getSlotList(&ckSlots, J2CK_BOOL(tokenIn), &ckCount))) {
    return nullptr;
  }
  const HeapBlock<CK_SLOT_ID> slots(ckSlots);
  if (ckCount == 0) return nullptr;
  if (!fitsJavaArray(env, ckCount, bridge::CKR_ZOV_NOSPACE)) return nullptr;

  TRACE("JNI: creating array of %li PKCS11Slot\n", ckCount);
  const Constructor slotCostr = findConstructor(env, kSlotClass, kSlotInit);
  if (slotCostr.init == nullptr) return nullptr;
  const jobjectArray array = env->NewObjectArray(CK2J_INT(ckCount), slotCostr.cl, nullptr);
  if (array == nullptr) return nullptr;
  for (jint i = 0; i < CK2J_INT(ckCount); ++i) {
    TRACE("JNI: adding element %li ...", static_cast<long>(i));
    const jobject element = newSlot(env, slotCostr, obj, slots[static_cast<std::size_t>(i)]);
    if (element == nullptr) return nullptr;
    env->SetObjectArrayElement(array, i, element);
    traceLine(" OK");
  }
  return array;
}

QUARVEL_NOT_SUPPORTED(jobject, _waitForSlotEvent, jobject, jboolean)

// ---- RSA credential lookup ----

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
