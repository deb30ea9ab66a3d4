package com.qv.testdouble;

import java.util.function.LongSupplier;
import java.util.function.Supplier;

/** One call that the double is answering: its record and the reply that applies to it. */
public final class Call {
    private final Reply reply;
    private final DoubleControl.Record record;  // null when a result is only inspected, not called

    Call(Reply reply, DoubleControl.Record record) {
        this.reply = reply;
        this.record = record;
    }

    /** The scripted read data, or null when the read follows the store. */
    public byte[] scriptedReadData() {
        return reply.readData;
    }

    /** The count a scripted read reports. */
    public long scriptedReportedCount() {
        return reply.reportedCount != null ? reply.reportedCount : reply.readData.length;
    }

    /** Keeps these bytes as the byte[] argument of the record (the caller hands over a copy it no longer changes). */
    public void keepBytes(byte[] bytes) {
        if (record != null) {
            DoubleControl.keepBytes(record, bytes);
        }
    }

    /** Throws when the reply says so; otherwise nothing happens (constructors). */
    public void finish() {
        if (reply.kind == Reply.Kind.THROW) {
            throw new RuntimeException(reply.message);
        }
    }

    /**
     * The answer of the call: the exception or null that the reply asks for, else the double's own
     * result with the reply's error value and fields applied.
     */
    public <T> T finish(Class<T> resultClass, Supplier<T> usual) {
        switch (reply.kind) {
            case THROW:
                throw new RuntimeException(reply.message);
            case RETURN_NULL:
                return null;
            default:
                return reply.apply(resultClass, usual.get());
        }
    }

    /** The answer of a method that returns a bare long. */
    public long finishLong(LongSupplier usual) {
        if (reply.kind == Reply.Kind.THROW) {
            throw new RuntimeException(reply.message);
        }
        long value = usual.getAsLong();
        return reply.returnLong != null ? reply.returnLong : value;
    }
}
