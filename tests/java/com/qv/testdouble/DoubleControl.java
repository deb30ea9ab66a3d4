package com.qv.testdouble;

import com.qv.AzureLibrary.CObjectSubListElement;
import com.qv.AzureLibrary.CPluginMetaData;
import com.qv.AzureLibrary.QVAzureContainer;
import com.qv.AzureLibrary.QVAzurePlugInLibrary;
import com.qv.QVCloudPluginInterface.CErrorValue;
import com.qv.QVCloudPluginInterface.ERRORID;

import java.lang.reflect.Constructor;
import java.lang.reflect.Field;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Deque;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * The controls of the storage library's test double, QVAzurePlugInLibrary:
 * what the next calls of its methods answer, what calls it received, and its
 * in-memory objects. Everything is static, so a test reaches the double that
 * the plug-in made without holding it. Thread-safe.
 *
 * Method names are the double's Java method names; the constructor is "<init>".
 * Overloads share their name: a script for "WriteObject" applies to the next
 * call of any WriteObject.
 *
 * Replies queue up per method. returnNull, returnErrorOrdinal,
 * returnNullErrorValue, returnErrorValue, throwException and returnLong each
 * add a new reply at the end of the queue; the field setters and setReadData
 * change the reply at the end of the queue, adding one when the queue is empty
 * or ends with a null or throwing reply. A call takes the reply at the head;
 * without one it gives the double's own answer.
 *
 * A reply that is not null or throwing keeps the double's own behaviour (the
 * store is read or changed as usual) and changes only the result it hands
 * back. Scripting mistakes (an unknown method, a field the method's results do
 * not have, a field of the wrong type) are refused at once with an
 * IllegalArgumentException.
 */
public final class DoubleControl {
    /** Bytes of recorded byte[] arguments kept at most; beyond it the oldest ones are dropped. */
    public static final long RECORD_BYTES_BUDGET = 1L << 30;

    static final class Record {
        final String method;
        final String text;
        byte[] bytes;
        boolean released;

        Record(String method, String text) {
            this.method = method;
            this.text = text;
        }
    }

    static final class Overload {
        final String name;
        final String signature;
        final Method method;  // null for the constructor
        final Class<?> result;

        Overload(String name, String signature, Method method, Class<?> result) {
            this.name = name;
            this.signature = signature;
            this.method = method;
            this.result = result;
        }
    }

    private static final Object LOCK = new Object();
    private static final Map<String, Deque<Reply>> SCRIPTS = new HashMap<>();
    private static final List<Record> RECORDS = new ArrayList<>();
    private static long retainedBytes;
    private static int oldestKept;
    private static final ObjectStore STORE = new ObjectStore();
    private static final ThreadLocal<Reply> INSPECTING = new ThreadLocal<>();
    private static final Map<String, List<Overload>> OVERLOADS = overloads();
    // The overload whose result nextResult builds when it is given no signature and the overloads differ.
    private static final Map<String, String> MAIN_OVERLOAD = Map.of(
        "WriteObject", "(Ljava/lang/String;[BJ[Lcom/qv/AzureLibrary/CPluginMetaData;)Lcom/qv/AzureLibrary/CWObjectHandleFnValue;",
        "GetObjectMetaData", "(Ljava/lang/String;Ljava/lang/String;)Lcom/qv/AzureLibrary/CGetObjectMetaData;");
    private static final Set<String> READS = Set.of("ReadObject", "ReadObjectByName", "ReadObjectByHandle");
    private static QVAzurePlugInLibrary inspectionInstance;

    private DoubleControl() {
    }

    // ------------------------------------------------------------------ used by the double

    public static ObjectStore store() {
        return STORE;
    }

    /** Records a call (unless a result is only being inspected) and takes the reply that applies to it. */
    public static Call enter(String method, Object... args) {
        Reply inspected = INSPECTING.get();
        if (inspected != null) {
            return new Call(inspected, null);
        }
        Record record = new Record(method, CanonicalText.call(method, args));
        synchronized (LOCK) {
            RECORDS.add(record);
            Deque<Reply> queue = SCRIPTS.get(method);
            Reply reply = queue == null || queue.isEmpty() ? new Reply() : queue.pollFirst();
            return new Call(reply, record);
        }
    }

    static void keepBytes(Record record, byte[] bytes) {
        synchronized (LOCK) {
            if (record.bytes != null) {
                retainedBytes -= record.bytes.length;
            }
            record.bytes = bytes;
            retainedBytes += bytes == null ? 0 : bytes.length;
            while (retainedBytes > RECORD_BYTES_BUDGET && oldestKept < RECORDS.size()) {
                Record old = RECORDS.get(oldestKept);
                if (old == record) {
                    break;
                }
                if (old.bytes != null) {
                    retainedBytes -= old.bytes.length;
                    old.bytes = null;
                    old.released = true;
                }
                ++oldestKept;
            }
        }
    }

    // ------------------------------------------------------------------ scripts

    /** Forgets every script, every recorded call and every stored object. */
    /**
     * With data pass-through on, the data methods do no work on the bytes: writes keep nothing and reads
     * report the requested length without touching the array. Benchmarks use it so that what they measure
     * is the plug-in's own cost. Reset turns it off.
     */
    private static volatile boolean dataPassThrough = false;

    public static void setDataPassThrough(boolean on) {
        dataPassThrough = on;
    }

    public static boolean dataPassThrough() {
        return dataPassThrough;
    }

    public static void reset() {
        dataPassThrough = false;
        synchronized (LOCK) {
            SCRIPTS.clear();
            RECORDS.clear();
            retainedBytes = 0;
            oldestKept = 0;
            STORE.clear();
        }
    }

    public static void returnNull(String method) {
        requireResult(method, o -> !o.result.isPrimitive(), "returns no object that could be null");
        Reply r = new Reply();
        r.kind = Reply.Kind.RETURN_NULL;
        add(method, r);
    }

    /**
     * The usual result with an error value of ERRORID.values()[ordinal]. For an ordinal that no ERRORID has,
     * a ScriptedErrorValue whose getErrorID answers null and whose getOrdinalValue answers that ordinal.
     */
    public static void returnErrorOrdinal(String method, int ordinal) {
        requireErrorValue(method);
        ERRORID[] ids = ERRORID.values();
        Reply r = new Reply();
        r.replaceErrorValue = true;
        r.errorValue = ordinal >= 0 && ordinal < ids.length
            ? new CErrorValue(ids[ordinal]) : new ScriptedErrorValue(null, ordinal);
        add(method, r);
    }

    /** The usual result with a null error value; a bare CErrorValue result becomes null. */
    public static void returnNullErrorValue(String method) {
        requireErrorValue(method);
        Reply r = new Reply();
        r.replaceErrorValue = true;
        add(method, r);
    }

    /** The usual result with a ScriptedErrorValue: getErrorID answers ERRORID.values()[errorIdOrdinal] or null. */
    public static void returnErrorValue(String method, boolean hasErrorId, int errorIdOrdinal, int ordinalValue) {
        requireErrorValue(method);
        ERRORID[] ids = ERRORID.values();
        if (hasErrorId && (errorIdOrdinal < 0 || errorIdOrdinal >= ids.length)) {
            throw new IllegalArgumentException("test double: no ERRORID has the ordinal " + errorIdOrdinal);
        }
        Reply r = new Reply();
        r.replaceErrorValue = true;
        r.errorValue = new ScriptedErrorValue(hasErrorId ? ids[errorIdOrdinal] : null, ordinalValue);
        add(method, r);
    }

    /** The call throws a RuntimeException with this message. */
    public static void throwException(String method, String message) {
        overloadsOf(method);
        Reply r = new Reply();
        r.kind = Reply.Kind.THROW;
        r.message = message;
        add(method, r);
    }

    /** The value of a method that returns a bare long (GetObjectActualSize). */
    public static void returnLong(String method, long value) {
        requireResult(method, o -> o.result == long.class, "does not return a long");
        Reply r = new Reply();
        r.returnLong = value;
        add(method, r);
    }

    public static void setString(String method, String field, String value) {
        setField(method, field, String.class, value);
    }

    public static void setLong(String method, String field, long value) {
        setField(method, field, long.class, value);
    }

    public static void setInt(String method, String field, int value) {
        setField(method, field, int.class, value);
    }

    public static void setBoolean(String method, String field, boolean value) {
        setField(method, field, boolean.class, value);
    }

    public static void setNullField(String method, String field) {
        setField(method, field, null, null);
    }

    public static void setStringArray(String method, String field, String[] values) {
        setField(method, field, String[].class, values == null ? null : values.clone());
    }

    /** A CPluginMetaData[] field, built from parallel arrays (nullElements[i]: slot i is null; nullVals[i]: its val is null). */
    public static void setMetaData(String method, String field, String[] names, String[] values,
                                   boolean[] nullElements, boolean[] nullVals) {
        setField(method, field, CPluginMetaData[].class, metaData(names, values, nullElements, nullVals, 0, names.length));
    }

    /**
     * The metaDat field (CObjectSubListElement[]) of GetObjectSubList's result. Element i has the file name
     * fileNames[i] and the next metaCounts[i] entries of the meta* arrays as its metadata.
     */
    public static void setSubList(String method, String[] fileNames, boolean[] nullElements, boolean[] nullMetaData,
                                  int[] metaCounts, String[] metaNames, String[] metaValues,
                                  boolean[] metaNullElements, boolean[] metaNullVals) {
        CObjectSubListElement[] elements = new CObjectSubListElement[fileNames.length];
        int next = 0;
        for (int i = 0; i < fileNames.length; ++i) {
            CPluginMetaData[] meta = metaData(metaNames, metaValues, metaNullElements, metaNullVals, next, metaCounts[i]);
            next += metaCounts[i];
            if (!nullElements[i]) {
                elements[i] = new CObjectSubListElement(fileNames[i], nullMetaData[i] ? null : meta);
            }
        }
        setField(method, "metaDat", CObjectSubListElement[].class, elements);
    }

    /** The containers field (QVAzureContainer[]); the indexes in nullElements hold null. */
    public static void setContainers(String method, String[] names, int[] nullElements) {
        QVAzureContainer[] containers = new QVAzureContainer[names.length];
        for (int i = 0; i < names.length; ++i) {
            containers[i] = new QVAzureContainer(names[i]);
        }
        for (int i : nullElements) {
            containers[i] = null;
        }
        setField(method, "containers", QVAzureContainer[].class, containers);
    }

    /**
     * The pluginCapabilities map of GetCloudPluginCapabilities: a HashMap of the pairs keys[i] to values[i].
     * A key listed in integerValueKeys gets a java.lang.Integer value: its text read as a decimal number
     * (0 when it is null or not a number).
     */
    public static void setCapabilities(String[] keys, String[] values, String[] integerValueKeys) {
        Set<String> integerKeys = new HashSet<>(Arrays.asList(integerValueKeys));
        HashMap<Object, Object> map = new HashMap<>();
        for (int i = 0; i < keys.length; ++i) {
            Object value = values[i];
            if (keys[i] != null && integerKeys.contains(keys[i])) {
                int number = 0;
                try {
                    number = values[i] == null ? 0 : Integer.parseInt(values[i]);
                } catch (NumberFormatException e) {
                    number = 0;
                }
                value = Integer.valueOf(number);
            }
            map.put(keys[i], value);
        }
        setField("GetCloudPluginCapabilities", "pluginCapabilities", Map.class, map);
    }

    /** The bytes the next read puts at the start of the caller's array; it reports their number. */
    public static void setReadData(String method, byte[] bytes) {
        setReadData(method, bytes, bytes.length);
    }

    /** The bytes the next read puts at the start of the caller's array (as many as fit), and the count it reports. */
    public static void setReadData(String method, byte[] bytes, long reportedCount) {
        overloadsOf(method);
        if (!READS.contains(method)) {
            throw new IllegalArgumentException("test double: " + method + " reads no data");
        }
        synchronized (LOCK) {
            Reply r = last(method);
            r.readData = bytes.clone();
            r.reportedCount = reportedCount;
        }
    }

    // ------------------------------------------------------------------ record

    public static int callCount(String method) {
        overloadsOf(method);
        synchronized (LOCK) {
            int n = 0;
            for (Record r : RECORDS) {
                n += r.method.equals(method) ? 1 : 0;
            }
            return n;
        }
    }

    /** The text of call `index` of `method`, as "Method(arguments)". */
    public static String describeCall(String method, int index) {
        return record(method, index).text;
    }

    /** Every call since reset, in order. */
    public static String[] calls() {
        synchronized (LOCK) {
            String[] out = new String[RECORDS.size()];
            for (int i = 0; i < out.length; ++i) {
                out[i] = RECORDS.get(i).text;
            }
            return out;
        }
    }

    /**
     * The bytes of the byte[] argument of call `index` of `method`: for writes what the caller passed, for
     * reads what the double put into the caller's array. Empty when there was none.
     */
    public static byte[] byteArgument(String method, int index) {
        synchronized (LOCK) {
            Record r = record(method, index);
            if (r.released) {
                throw new IllegalStateException("test double: the bytes of " + method + " call " + index
                    + " were dropped to keep the record below " + RECORD_BYTES_BUDGET + " bytes");
            }
            // The recorded array itself: records never change it, and large writes are not copied again.
            return r.bytes == null ? new byte[0] : r.bytes;
        }
    }

    /**
     * The result that `method` would give now, taking its reply from the queue and recording no call.
     * `signature` (JNI form) chooses the overload; null takes WriteObject's metadata form, GetObjectMetaData's
     * one-property form, or else the overload with the fewest parameters. A method without parameters gives
     * its usual answer; any other gives its result class as made by the no-argument constructor (a successful
     * error value, other fields at their Java defaults), in both cases with the reply applied. A long result
     * comes boxed.
     */
    public static Object nextResult(String method, String signature) {
        if ("<init>".equals(method)) {
            throw new IllegalArgumentException("test double: a constructor has no result");
        }
        Overload o = chooseOverload(method, signature);
        Reply reply;
        synchronized (LOCK) {
            Deque<Reply> queue = SCRIPTS.get(method);
            reply = queue == null || queue.isEmpty() ? new Reply() : queue.pollFirst();
        }
        if (reply.kind == Reply.Kind.THROW) {
            throw new RuntimeException(reply.message);
        }
        if (reply.kind == Reply.Kind.RETURN_NULL) {
            return null;
        }
        if (o.method.getParameterCount() == 0) {
            INSPECTING.set(reply);
            try {
                return o.method.invoke(inspectionInstance());
            } catch (InvocationTargetException e) {
                Throwable cause = e.getCause();
                throw cause instanceof RuntimeException ? (RuntimeException) cause : new IllegalStateException(cause);
            } catch (IllegalAccessException e) {
                throw new IllegalStateException(e);
            } finally {
                INSPECTING.remove();
            }
        }
        if (o.result == long.class) {
            return reply.returnLong != null ? reply.returnLong : Long.valueOf(0);
        }
        try {
            return applyTo(reply, o.result, o.result.getConstructor().newInstance());
        } catch (ReflectiveOperationException e) {
            throw new IllegalStateException("test double: cannot make a " + o.result.getName(), e);
        }
    }

    // ------------------------------------------------------------------ helpers

    private static <T> T applyTo(Reply reply, Class<T> cls, Object result) {
        return reply.apply(cls, cls.cast(result));
    }

    private static QVAzurePlugInLibrary inspectionInstance() {
        synchronized (LOCK) {
            if (inspectionInstance == null) {
                inspectionInstance = new QVAzurePlugInLibrary(null);
            }
            return inspectionInstance;
        }
    }

    private static Record record(String method, int index) {
        overloadsOf(method);
        synchronized (LOCK) {
            int n = 0;
            for (Record r : RECORDS) {
                if (r.method.equals(method) && n++ == index) {
                    return r;
                }
            }
            throw new IndexOutOfBoundsException("test double: " + method + " has " + n + " calls, not call " + index);
        }
    }

    private static CPluginMetaData[] metaData(String[] names, String[] values, boolean[] nullElements,
                                              boolean[] nullVals, int from, int count) {
        CPluginMetaData[] out = new CPluginMetaData[count];
        for (int i = 0; i < count; ++i) {
            int k = from + i;
            if (nullElements[k]) {
                continue;
            }
            CPluginMetaData m = new CPluginMetaData(names[k], values[k]);
            if (nullVals[k]) {
                m.val = null;
            }
            out[i] = m;
        }
        return out;
    }

    private static void add(String method, Reply reply) {
        synchronized (LOCK) {
            SCRIPTS.computeIfAbsent(method, k -> new ArrayDeque<>()).addLast(reply);
        }
    }

    private static Reply last(String method) {
        Deque<Reply> queue = SCRIPTS.computeIfAbsent(method, k -> new ArrayDeque<>());
        Reply r = queue.peekLast();
        if (r == null || !r.isUsual()) {
            r = new Reply();
            queue.addLast(r);
        }
        return r;
    }

    /** Sets a result field on the reply at the end of the queue; `type` null accepts any reference field. */
    private static void setField(String method, String field, Class<?> type, Object value) {
        boolean found = false;
        for (Overload o : overloadsOf(method)) {
            try {
                Field f = o.result.getField(field);
                found |= type == null ? !f.getType().isPrimitive() : f.getType() == type;
            } catch (NoSuchFieldException e) {
                // another overload may have it
            }
        }
        if (!found) {
            throw new IllegalArgumentException("test double: the results of " + method + " have no field " + field
                + (type == null ? " of a reference type" : " of type " + type.getSimpleName()));
        }
        synchronized (LOCK) {
            last(method).fields.put(field, value);
        }
    }

    private interface OverloadTest {
        boolean test(Overload o);
    }

    private static void requireResult(String method, OverloadTest test, String problem) {
        for (Overload o : overloadsOf(method)) {
            if (o.method != null && test.test(o)) {
                return;
            }
        }
        throw new IllegalArgumentException("test double: " + method + " " + problem);
    }

    private static void requireErrorValue(String method) {
        requireResult(method, o -> {
            if (o.result == CErrorValue.class) {
                return true;
            }
            try {
                return o.result.getField("errorValue").getType() == CErrorValue.class;
            } catch (NoSuchFieldException e) {
                return false;
            }
        }, "has no error value in its result");
    }

    private static List<Overload> overloadsOf(String method) {
        List<Overload> list = method == null ? null : OVERLOADS.get(method);
        if (list == null) {
            throw new IllegalArgumentException("test double: QVAzurePlugInLibrary has no method " + method);
        }
        return list;
    }

    private static Overload chooseOverload(String method, String signature) {
        List<Overload> list = overloadsOf(method);
        String wanted = signature != null ? signature : MAIN_OVERLOAD.get(method);
        Overload best = null;
        for (Overload o : list) {
            if (wanted != null ? o.signature.equals(wanted)
                               : best == null || o.method.getParameterCount() < best.method.getParameterCount()) {
                best = o;
            }
        }
        if (best == null) {
            throw new IllegalArgumentException("test double: " + method + " has no overload " + wanted);
        }
        return best;
    }

    /** The JNI form of a type, e.g. "[Ljava/lang/String;". */
    public static String descriptor(Class<?> c) {
        if (c.isArray()) {
            return "[" + descriptor(c.getComponentType());
        }
        if (c.isPrimitive()) {
            if (c == void.class) return "V";
            if (c == boolean.class) return "Z";
            if (c == byte.class) return "B";
            if (c == char.class) return "C";
            if (c == short.class) return "S";
            if (c == int.class) return "I";
            if (c == long.class) return "J";
            if (c == float.class) return "F";
            return "D";
        }
        return "L" + c.getName().replace('.', '/') + ";";
    }

    private static String signature(Class<?>[] parameters, Class<?> result) {
        StringBuilder b = new StringBuilder("(");
        for (Class<?> p : parameters) {
            b.append(descriptor(p));
        }
        return b.append(')').append(descriptor(result)).toString();
    }

    private static Map<String, List<Overload>> overloads() {
        Map<String, List<Overload>> map = new HashMap<>();
        for (Method m : QVAzurePlugInLibrary.class.getDeclaredMethods()) {
            if (Modifier.isPublic(m.getModifiers()) && !Modifier.isStatic(m.getModifiers())) {
                map.computeIfAbsent(m.getName(), k -> new ArrayList<>())
                   .add(new Overload(m.getName(), signature(m.getParameterTypes(), m.getReturnType()), m, m.getReturnType()));
            }
        }
        for (Constructor<?> c : QVAzurePlugInLibrary.class.getConstructors()) {
            map.computeIfAbsent("<init>", k -> new ArrayList<>())
               .add(new Overload("<init>", signature(c.getParameterTypes(), void.class), null, void.class));
        }
        return map;
    }
}
