// The one object through which the plug-in reaches Java.
//
// A JNIBridge keeps the host's JVM, the log writer, the host's creation
// record and a global reference to the single Java plug-in object (an
// instance of com/qv/AzureLibrary/QVAzurePlugInLibrary). This file holds its
// life cycle: construction, StartCommunication (which makes the Java
// object), Init (Java AzureInit) and DeInit (Java AzureDeInit). Every
// storage operation is a member too, one source file per family under
// src/operations/, each written against the call frame of CallFrame.h.
#pragma once

#include <jni.h>

#include <cstdint>

#include "bridge/CallFrame.h"
#include "cloudplugin/ICloudPluginInterface.h"
#include "log/JNIWrapperLog.h"

class JNIBridge {
public:
    // Reads the host's JVM through pInitData->jvmRef and hands it to JVMHost.
    JNIBridge(const WideString& hostFolder, CloudPluginCreateInfo* pInitData);
    // Releases only the bridge's own memory: the thread is not detached and
    // the global reference is not deleted here (DeInit does that).
    ~JNIBridge() = default;
    JNIBridge(const JNIBridge&) = delete;
    JNIBridge& operator=(const JNIBridge&) = delete;

    void SetLogger(JNIWrapperLog* log) { m_pLog = log; }

    // 1 when the plug-in's own JVM path produced a machine, else 0 (which is
    // what a first call in a process always gives: the host's JVM is the
    // one used). Not an error code.
    uint32_t InitialiseCommunication(const WideString& hostFolder);
    // Makes the Java plug-in object from a CPluginInitData of the host's two
    // strings; 0 or 40.
    uint32_t StartCommunication();
    // Java AzureInit(a, b).
    uint32_t Init(const WideString& a, const WideString& b);
    // Java AzureInit(a, the host folder given at construction).
    uint32_t Init(const WideString& a);
    // Java AzureDeInit(), then the global reference is released (and the
    // field cleared: later operations answer 40).
    uint32_t DeInit();

    // A new local com/qv/AmazonLibrary/CPluginInitData of the record's
    // installFolder and logFolder; null when it cannot be made.
    jobject CreatePluginInitData(JNIEnv* env, const CloudPluginCreateInfo* pInitData);

    // The Java plug-in object (a global reference), null when there is none.
    jobject PluginObject() const { return m_ObjQVAzurePlugInLibrary; }
    JavaVM* Jvm() const { return m_pJVM; }
    JNIWrapperLog* Logger() const { return m_pLog; }

private:
    BridgeContext Context() const { return {m_pJVM, m_pLog, m_ObjQVAzurePlugInLibrary}; }

    jobject m_ObjQVAzurePlugInLibrary = nullptr;
    JavaVM* m_pJVM = nullptr;
    JNIWrapperLog* m_pLog = nullptr;
    WideString m_strHostFolder;
    CloudPluginCreateInfo* m_pInitData = nullptr;
};
