// The Java native methods of package com.zelvarpack: a thin layer that turns
// Java arguments into the exported classes' arguments and their results back
// into Java values. The only file of the library that includes jni.h.
//
// Handles: every native object reaches Java as a direct ByteBuffer over the
// object's own memory, with the object's size as capacity; Java passes it
// back as the first argument and never reads or writes its contents. A
// buffer whose capacity is not the size of the class a method expects is
// not that class's handle and is refused.
//
// Strings: each String argument is read as modified UTF-8 (GetStringUTFChars)
// for the length of one call; a null String is a null pointer. The page
// optimiser keeps its last five texts (the forwarded header values and the
// user agent) as pointers for its whole life, so for it the bridge keeps its
// own copies beside the object.
//
// Failures: Destroy with a null handle does nothing; any other method
// throws NullPointerException for a null handle (or a null id, which the
// servers cannot take) and IllegalArgumentException for a buffer that is
// not a handle of its class. No C++ exception crosses into the virtual
// machine: allocation failure becomes java.lang.OutOfMemoryError, any other
// (the media servers' messages) java.lang.RuntimeException, thrown when the
// native method returns.
//
// Thread safety: the bridge keeps no state of its own; an object is used by
// one thread at a time, as its class says.
#include <jni.h>

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>

#include "zelvarpack/zelvar_buffer.h"
#include "zelvarpack/zelvar_css_server.h"
#include "zelvarpack/zelvar_html_server.h"
#include "zelvarpack/zelvar_image_server.h"
#include "zelvarpack/zelvar_js_server.h"
#include "zelvarpack/zelvar_utils.h"

namespace {

// The page optimiser with the copies of the texts it keeps as pointers.
// The copies are members declared before the server, so they are made
// before it and outlive it.
class JavaHtmlServer {
 public:
  JavaHtmlServer(char* cacheDirectory, std::int32_t optimise, bool fetchForeignHosts,
                 bool keepComments, bool useOwnHost, std::int32_t timeoutSeconds, char* handlerPath,
                 void* callerContext, unsigned char* clientAddress,
                 std::int32_t clientAddressLength, unsigned char* serverAddress,
                 std::int32_t serverAddressLength, unsigned char* pageUrl,
                 std::int32_t pageUrlLength, const char* forwardA, const char* forwardB,
                 const char* forwardC, const char* forwardD, const char* userAgent)
      : forwardA_(Keep(forwardA)),
        forwardB_(Keep(forwardB)),
        forwardC_(Keep(forwardC)),
        forwardD_(Keep(forwardD)),
        userAgent_(Keep(userAgent)),
        server_(cacheDirectory, optimise, fetchForeignHosts, keepComments, useOwnHost,
                timeoutSeconds, handlerPath, callerContext, clientAddress, clientAddressLength,
                serverAddress, serverAddressLength, pageUrl, pageUrlLength, Text(forwardA_),
                Text(forwardB_), Text(forwardC_), Text(forwardD_), Text(userAgent_)) {}

  CZelvarHtmlServer& server() { return server_; }

 private:
  static std::optional<std::string> Keep(const char* text) {
    if (text == nullptr) return std::nullopt;
    return std::string(text);
  }
  static const char* Text(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
  }

  const std::optional<std::string> forwardA_, forwardB_, forwardC_, forwardD_, userAgent_;
  CZelvarHtmlServer server_;
};

void Throw(JNIEnv* env, const char* className, const char* message) {
  if (env->ExceptionCheck()) return;  // the first exception is the one Java sees
  jclass type = env->FindClass(className);
  if (type != nullptr) env->ThrowNew(type, message);
}

// Runs `body`, turning a C++ exception into the matching Java exception and
// the method's result into `fallback`.
template <typename Result, typename Body>
Result Guarded(JNIEnv* env, Result fallback, Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    Throw(env, "java/lang/OutOfMemoryError", "native allocation failed");
  } catch (const std::exception& error) {
    Throw(env, "java/lang/RuntimeException", error.what());
  } catch (...) {
    Throw(env, "java/lang/RuntimeException", "native failure");
  }
  return fallback;
}

template <typename Body>
void GuardedVoid(JNIEnv* env, Body body) noexcept {
  Guarded(env, 0, [&] {
    body();
    return 0;
  });
}

// The object behind a handle, or null with a Java exception pending.
template <typename T>
T* FromHandle(JNIEnv* env, jobject handle) {
  if (handle == nullptr) {
    Throw(env, "java/lang/NullPointerException", "null handle");
    return nullptr;
  }
  void* address = env->GetDirectBufferAddress(handle);
  if (address == nullptr || env->GetDirectBufferCapacity(handle) != jlong{sizeof(T)}) {
    Throw(env, "java/lang/IllegalArgumentException", "not a handle of this class");
    return nullptr;
  }
  return static_cast<T*>(address);
}

// Destroy's rule: a null handle, or a buffer without an address, is nothing
// to free. A buffer of another class's size is refused as elsewhere.
template <typename T>
void DestroyHandle(JNIEnv* env, jobject handle) {
  if (handle == nullptr || env->GetDirectBufferAddress(handle) == nullptr) return;
  delete FromHandle<T>(env, handle);
}

// A new handle over `object`, which it then owns; on failure the object is
// deleted and null returned with the exception pending.
template <typename T>
jobject ToHandle(JNIEnv* env, std::unique_ptr<T> object) {
  if (!object) return nullptr;
  jobject handle = env->NewDirectByteBuffer(object.get(), jlong{sizeof(T)});
  if (handle != nullptr) object.release();
  return handle;
}

// A String argument read for the length of one call.
class JavaText {
 public:
  JavaText(JNIEnv* env, jstring text) : env_(env), text_(text) {
    // With an exception pending (an earlier text failed) no JNI call is made.
    if (text_ == nullptr || env_->ExceptionCheck()) return;
    chars_ = env_->GetStringUTFChars(text_, nullptr);
    if (chars_ != nullptr) length_ = env_->GetStringUTFLength(text_);
  }
  ~JavaText() {
    if (chars_ != nullptr) env_->ReleaseStringUTFChars(text_, chars_);
  }
  JavaText(const JavaText&) = delete;
  JavaText& operator=(const JavaText&) = delete;

  // True when a non-null String could not be read (an exception is pending).
  bool failed() const { return text_ != nullptr && chars_ == nullptr; }
  bool null() const { return text_ == nullptr; }
  char* chars() const { return const_cast<char*>(chars_); }
  unsigned char* bytes() const {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(chars_));
  }
  // `count` as a length into the text: never past its end, never negative.
  std::int32_t Clamp(jint count) const {
    return count < 0 ? 0 : (count > length_ ? length_ : static_cast<std::int32_t>(count));
  }

 private:
  JNIEnv* env_;
  jstring text_;
  const char* chars_ = nullptr;
  std::int32_t length_ = 0;
};

// An id argument: the servers build a std::string from it, so null is
// refused.
bool ReadId(JNIEnv* env, const JavaText& id) {
  if (id.null()) Throw(env, "java/lang/NullPointerException", "null id");
  return !id.null() && !id.failed();
}

jbyteArray ToByteArray(JNIEnv* env, CZelvarBuffer* buffer) {
  const jsize length = buffer->GetValueLength();
  jbyteArray array = env->NewByteArray(length);
  if (array != nullptr && length > 0) {
    env->SetByteArrayRegion(array, 0, length, reinterpret_cast<const jbyte*>(buffer->GetValue()));
  }
  return array;
}

// Copies a buffer handed over by the native call into a new byte[] and frees
// it; null stays null.
jbyteArray TakeByteArray(JNIEnv* env, CZelvarBuffer* buffer) {
  const std::unique_ptr<CZelvarBuffer> owned(buffer);
  return owned ? ToByteArray(env, owned.get()) : nullptr;
}

using ImageGetter = CZelvarImages* (CZelvarImageServer::*)(std::string);

jobject GetImages(JNIEnv* env, jobject handle, jstring id, ImageGetter getter) {
  return Guarded<jobject>(env, nullptr, [&]() -> jobject {
    CZelvarImageServer* server = FromHandle<CZelvarImageServer>(env, handle);
    if (server == nullptr) return nullptr;
    const JavaText text(env, id);
    if (!ReadId(env, text)) return nullptr;
    return ToHandle(env, std::unique_ptr<CZelvarImages>((server->*getter)(text.chars())));
  });
}

}  // namespace

extern "C" {

// ---- CZelvarHtmlServer ----

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarHtmlServer_Create(
    JNIEnv* env, jclass, jstring cacheDirectory, jint optimise, jboolean fetchForeignHosts,
    jboolean keepComments, jboolean useOwnHost, jint timeoutSeconds, jstring handlerPath,
    jobject callerContext, jstring clientAddress, jint clientAddressLength, jstring serverAddress,
    jint serverAddressLength, jstring pageUrl, jint pageUrlLength, jstring forwardA,
    jstring forwardB, jstring forwardC, jstring forwardD, jstring userAgent) {
  return Guarded<jobject>(env, nullptr, [&]() -> jobject {
    const JavaText cache(env, cacheDirectory), handler(env, handlerPath),
        client(env, clientAddress), server(env, serverAddress), page(env, pageUrl),
        a(env, forwardA), b(env, forwardB), c(env, forwardC), d(env, forwardD),
        agent(env, userAgent);
    for (const JavaText* text : {&cache, &handler, &client, &server, &page, &a, &b, &c, &d, &agent})
      if (text->failed()) return nullptr;
    // The caller's context is kept, never used: a local reference is as good
    // an opaque pointer as any.
    auto object = std::make_unique<JavaHtmlServer>(
        cache.chars(), optimise, fetchForeignHosts != JNI_FALSE, keepComments != JNI_FALSE,
        useOwnHost != JNI_FALSE, timeoutSeconds, handler.chars(), callerContext, client.bytes(),
        client.Clamp(clientAddressLength), server.bytes(), server.Clamp(serverAddressLength),
        page.bytes(), page.Clamp(pageUrlLength), a.chars(), b.chars(), c.chars(), d.chars(),
        agent.chars());
    return ToHandle(env, std::move(object));
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarHtmlServer_AddWork(JNIEnv* env, jclass,
                                                                     jobject handle, jobject data,
                                                                     jint count) {
  GuardedVoid(env, [&] {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    if (object == nullptr || data == nullptr || count <= 0) return;
    // Read in place; never past the buffer's end. A heap buffer has no
    // address and adds nothing.
    auto* bytes = static_cast<unsigned char*>(env->GetDirectBufferAddress(data));
    const jlong capacity = env->GetDirectBufferCapacity(data);
    if (bytes == nullptr || capacity <= 0) return;
    object->server().AddWork(bytes, static_cast<std::int32_t>(count < capacity ? count : capacity));
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarHtmlServer_DoWork(JNIEnv* env, jclass,
                                                                    jobject handle) {
  GuardedVoid(env, [&] {
    if (JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle)) object->server().DoWork();
  });
}

// The resources' decoded sizes, comparable with GetBytesAfter(n, false).
JNIEXPORT jint JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetBytesBefore(JNIEnv* env, jclass,
                                                                            jobject handle) {
  return Guarded<jint>(env, 0, [&]() -> jint {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr ? object->server().GetBytesBefore(false) : 0;
  });
}

JNIEXPORT jint JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetBytesAfter(JNIEnv* env, jclass,
                                                                           jobject handle,
                                                                           jint pageBytes,
                                                                           jboolean gzip) {
  return Guarded<jint>(env, 0, [&]() -> jint {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr ? object->server().GetBytesAfter(pageBytes, gzip != JNI_FALSE) : 0;
  });
}

JNIEXPORT jint JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetRequestsBefore(JNIEnv* env, jclass,
                                                                               jobject handle) {
  return Guarded<jint>(env, 0, [&]() -> jint {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr ? object->server().GetRequestsBefore() : 0;
  });
}

JNIEXPORT jint JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetRequestsAfter(JNIEnv* env, jclass,
                                                                              jobject handle) {
  return Guarded<jint>(env, 0, [&]() -> jint {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr ? object->server().GetRequestsAfter() : 0;
  });
}

JNIEXPORT jstring JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetId(JNIEnv* env, jclass,
                                                                      jobject handle) {
  return Guarded<jstring>(env, nullptr, [&]() -> jstring {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr ? env->NewStringUTF(object->server().GetId().c_str()) : nullptr;
  });
}

JNIEXPORT jbyteArray JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetRawZelvarBuffer(
    JNIEnv* env, jclass, jobject handle, jboolean compressed) {
  return Guarded<jbyteArray>(env, nullptr, [&]() -> jbyteArray {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    if (object == nullptr) return nullptr;
    bool gzip = compressed != JNI_FALSE;  // what the server writes back stays here
    return ToByteArray(env, object->server().GetRawZelvarBuffer(gzip));
  });
}

JNIEXPORT jboolean JNICALL Java_com_zelvarpack_CZelvarHtmlServer_GetRawZelvarBufferWasGzip(
    JNIEnv* env, jclass, jobject handle) {
  return Guarded<jboolean>(env, JNI_FALSE, [&]() -> jboolean {
    JavaHtmlServer* object = FromHandle<JavaHtmlServer>(env, handle);
    return object != nullptr && object->server().GetRawZelvarBufferWasGzip() ? JNI_TRUE : JNI_FALSE;
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarHtmlServer_Destroy(JNIEnv* env, jclass,
                                                                     jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<JavaHtmlServer>(env, handle); });
}

// ---- CZelvarCssServer ----

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarCssServer_Create(JNIEnv* env, jclass,
                                                                      jstring cacheDirectory) {
  return Guarded<jobject>(env, nullptr, [&]() -> jobject {
    const JavaText cache(env, cacheDirectory);
    if (cache.failed()) return nullptr;
    return ToHandle(env, std::make_unique<CZelvarCssServer>(cache.chars()));
  });
}

JNIEXPORT jbyteArray JNICALL Java_com_zelvarpack_CZelvarCssServer_GetMinifiedId(JNIEnv* env, jclass,
                                                                                jobject handle,
                                                                                jstring id,
                                                                                jboolean gzip) {
  return Guarded<jbyteArray>(env, nullptr, [&]() -> jbyteArray {
    CZelvarCssServer* server = FromHandle<CZelvarCssServer>(env, handle);
    if (server == nullptr) return nullptr;
    const JavaText text(env, id);
    if (!ReadId(env, text)) return nullptr;
    bool accepted = gzip != JNI_FALSE;  // GetMinifiedIdWasGzip reports the outcome
    return TakeByteArray(env, server->GetMinifiedId(text.chars(), accepted));
  });
}

JNIEXPORT jboolean JNICALL
Java_com_zelvarpack_CZelvarCssServer_GetMinifiedIdWasGzip(JNIEnv* env, jclass, jobject handle) {
  return Guarded<jboolean>(env, JNI_FALSE, [&]() -> jboolean {
    CZelvarCssServer* server = FromHandle<CZelvarCssServer>(env, handle);
    return server != nullptr && server->GetWasGzip() ? JNI_TRUE : JNI_FALSE;
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarCssServer_Destroy(JNIEnv* env, jclass,
                                                                    jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<CZelvarCssServer>(env, handle); });
}

// ---- CZelvarJSServer ----

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarJSServer_Create(JNIEnv* env, jclass,
                                                                     jstring cacheDirectory) {
  return Guarded<jobject>(env, nullptr, [&]() -> jobject {
    const JavaText cache(env, cacheDirectory);
    if (cache.failed()) return nullptr;
    return ToHandle(env, std::make_unique<CZelvarJSServer>(cache.chars()));
  });
}

JNIEXPORT jbyteArray JNICALL Java_com_zelvarpack_CZelvarJSServer_GetRawId(JNIEnv* env, jclass,
                                                                          jobject handle,
                                                                          jstring id,
                                                                          jboolean gzip) {
  return Guarded<jbyteArray>(env, nullptr, [&]() -> jbyteArray {
    CZelvarJSServer* server = FromHandle<CZelvarJSServer>(env, handle);
    if (server == nullptr) return nullptr;
    const JavaText text(env, id);
    if (!ReadId(env, text)) return nullptr;
    bool accepted = gzip != JNI_FALSE;  // GetRawIdWasGzip reports the outcome
    return TakeByteArray(env, server->GetRawId(text.chars(), accepted));
  });
}

JNIEXPORT jboolean JNICALL Java_com_zelvarpack_CZelvarJSServer_GetRawIdWasGzip(JNIEnv* env, jclass,
                                                                               jobject handle) {
  return Guarded<jboolean>(env, JNI_FALSE, [&]() -> jboolean {
    CZelvarJSServer* server = FromHandle<CZelvarJSServer>(env, handle);
    return server != nullptr && server->GetWasGzip() ? JNI_TRUE : JNI_FALSE;
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarJSServer_Destroy(JNIEnv* env, jclass,
                                                                   jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<CZelvarJSServer>(env, handle); });
}

// ---- CZelvarImageServer and CZelvarImages ----

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarImageServer_Create(JNIEnv* env, jclass,
                                                                        jstring cacheDirectory) {
  return Guarded<jobject>(env, nullptr, [&]() -> jobject {
    const JavaText cache(env, cacheDirectory);
    if (cache.failed()) return nullptr;
    return ToHandle(env, std::make_unique<CZelvarImageServer>(cache.chars()));
  });
}

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarImageServer_GetGifId(JNIEnv* env, jclass,
                                                                          jobject handle,
                                                                          jstring id) {
  return GetImages(env, handle, id, &CZelvarImageServer::GetGifId);
}

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarImageServer_GetJpgId(JNIEnv* env, jclass,
                                                                          jobject handle,
                                                                          jstring id) {
  return GetImages(env, handle, id, &CZelvarImageServer::GetJpgId);
}

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarImageServer_GetPng24Id(JNIEnv* env, jclass,
                                                                            jobject handle,
                                                                            jstring id) {
  return GetImages(env, handle, id, &CZelvarImageServer::GetPng24Id);
}

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarImageServer_GetPng32Id(JNIEnv* env, jclass,
                                                                            jobject handle,
                                                                            jstring id) {
  return GetImages(env, handle, id, &CZelvarImageServer::GetPng32Id);
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarImageServer_Destroy(JNIEnv* env, jclass,
                                                                      jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<CZelvarImageServer>(env, handle); });
}

JNIEXPORT jbyteArray JNICALL
Java_com_zelvarpack_CZelvarImages_GetRawImageZelvarBuffer(JNIEnv* env, jclass, jobject handle) {
  return Guarded<jbyteArray>(env, nullptr, [&]() -> jbyteArray {
    CZelvarImages* images = FromHandle<CZelvarImages>(env, handle);
    if (images == nullptr) return nullptr;
    bool wasGzip = false;
    return ToByteArray(env, images->GetRawImageZelvarBuffer(wasGzip));
  });
}

// Not in the classic Java surface: without it every sheet a Java host serves
// would stay allocated.
JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarImages_Destroy(JNIEnv* env, jclass,
                                                                 jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<CZelvarImages>(env, handle); });
}

// ---- CZelvarUtils ----

JNIEXPORT jobject JNICALL Java_com_zelvarpack_CZelvarUtils_Create(JNIEnv* env, jclass) {
  return Guarded<jobject>(
      env, nullptr, [&]() -> jobject { return ToHandle(env, std::make_unique<CZelvarUtils>()); });
}

// One GET of `address`, without the disk cache and without extra headers.
JNIEXPORT jbyteArray JNICALL Java_com_zelvarpack_CZelvarUtils_DownloadUrl(JNIEnv* env, jclass,
                                                                          jobject handle,
                                                                          jstring address,
                                                                          jint timeoutSeconds) {
  return Guarded<jbyteArray>(env, nullptr, [&]() -> jbyteArray {
    CZelvarUtils* utils = FromHandle<CZelvarUtils>(env, handle);
    if (utils == nullptr) return nullptr;
    const JavaText url(env, address);
    if (url.failed()) return nullptr;
    std::int32_t sent = 0, received = 0, uncompressed = 0;
    bool cacheable = false;
    return TakeByteArray(
        env, utils->DownloadUrl(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, url.bytes(), sent, received, uncompressed,
                                cacheable, timeoutSeconds));
  });
}

JNIEXPORT void JNICALL Java_com_zelvarpack_CZelvarUtils_Destroy(JNIEnv* env, jclass,
                                                                jobject handle) {
  GuardedVoid(env, [&] { DestroyHandle<CZelvarUtils>(env, handle); });
}

}  // extern "C"
