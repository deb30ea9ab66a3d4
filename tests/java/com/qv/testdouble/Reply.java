package com.qv.testdouble;

import com.qv.QVCloudPluginInterface.CErrorValue;

import java.lang.reflect.Field;
import java.util.LinkedHashMap;
import java.util.Map;

/**
 * What one call of a method answers instead of (or on top of) the double's
 * own behaviour. A reply without any script is the plain behaviour.
 */
public final class Reply {
    enum Kind { USUAL, RETURN_NULL, THROW }

    Kind kind = Kind.USUAL;
    String message;
    // A replacement for the result's error value (the result itself for methods that return a bare CErrorValue).
    boolean replaceErrorValue;
    CErrorValue errorValue;
    // Result fields by name, applied in the order they were scripted (a later value for a field wins).
    final Map<String, Object> fields = new LinkedHashMap<>();
    // Reads: the bytes put into the caller's array and the count reported for them.
    byte[] readData;
    Long reportedCount;
    // The value of a method that returns a bare long.
    Long returnLong;

    boolean isUsual() {
        return kind == Kind.USUAL;
    }

    /** The result with this reply's error value and fields applied to it. */
    <T> T apply(Class<T> resultClass, T result) {
        if (resultClass == CErrorValue.class) {
            if (!fields.isEmpty()) {
                throw new IllegalStateException("test double script: a bare CErrorValue has no fields " + fields.keySet());
            }
            return replaceErrorValue ? resultClass.cast(errorValue) : result;
        }
        if (result == null) {
            return null;
        }
        try {
            if (replaceErrorValue) {
                field(resultClass, "errorValue").set(result, errorValue);
            }
            for (Map.Entry<String, Object> e : fields.entrySet()) {
                field(resultClass, e.getKey()).set(result, e.getValue());
            }
        } catch (IllegalAccessException e) {
            throw new IllegalStateException("test double script: " + e, e);
        }
        return result;
    }

    private static Field field(Class<?> cls, String name) {
        try {
            return cls.getField(name);
        } catch (NoSuchFieldException e) {
            throw new IllegalStateException("test double script: " + cls.getName() + " has no field " + name, e);
        }
    }
}
