// SPDX-License-Identifier: Apache-2.0
// The native methods of NativePKCS11: the loaded module as a whole.
#include "it_quarvel_pkcs11_nat_NativePKCS11.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

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
    // After an earlier log that could not be opened, the stream comes back with another descriptor.
    dup2(fileno(log), STDOUT_FILENO);
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
