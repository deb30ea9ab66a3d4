#include "bridge/CallFrame.h"

jclass GetAzurePlugInClass(JNIEnv* env, JNIWrapperLog* log) {
    try {
        jclass cls = env->FindClass("com/qv/AzureLibrary/QVAzurePlugInLibrary");
        if (!cls) {
            DescribeException(env, log);
            LogError(log, u"GetAzurePlugInClass::Class object is not got...");
        }
        return cls;
    } catch (...) {
        LogError(log, u"GetAzurePlugInClass::Exception is occured...");
        return nullptr;
    }
}

jmethodID GetAzurePlugInObjectMethod(JNIEnv* env, JNIWrapperLog* log, jclass cls, const char* name,
                                     const char* signature) {
    try {
        const jmethodID method = cls ? env->GetMethodID(cls, name, signature) : nullptr;
        if (!method) {
            DescribeException(env, log);
            LogError(log, u"GetAzurePlugInObjectMethod::Method is not got... Method Name:- ");
            LogError(log, NarrowBytesAsWide(name));
            LogError(log, NarrowBytesAsWide(signature));
        }
        return method;
    } catch (...) {
        LogError(log, u"GetAzurePlugInObjectMethod::Exception is occured...");
        return nullptr;
    }
}
