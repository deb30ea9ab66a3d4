import com.qv.AzureLibrary.CPluginInitData;
import com.qv.AzureLibrary.QVAzurePlugInLibrary;

import java.util.Arrays;
import java.util.Random;

/**
 * Small-write latency of one library jar: WriteObject of SIZE bytes, 20
 * writes to warm up, then COUNT timed writes, names cycling over 8
 * objects; prints the median time per write in milliseconds. One JVM per
 * run; small-writes.sh runs it with the jar before and after a change,
 * alternating, against one Azurite.
 *
 * Usage: java -cp XNAzurePlugIn.jar:. SmallWrites CONNECTION SIZE COUNT
 */
public final class SmallWrites {
    private SmallWrites() {
    }

    public static void main(String[] args) {
        QVAzurePlugInLibrary l = new QVAzurePlugInLibrary(new CPluginInitData(null, null));
        if (l.AzureInit(args[0], null).getOrdinalValue() != 0) {
            throw new IllegalStateException("AzureInit failed");
        }
        int size = Integer.parseInt(args[1]);
        int count = Integer.parseInt(args[2]);
        byte[] data = new byte[size];
        new Random(size).nextBytes(data);
        for (int i = 0; i < 20; ++i) {
            write(l, "warm/" + (i % 8), data);
        }
        double[] ms = new double[count];
        for (int i = 0; i < count; ++i) {
            long t0 = System.nanoTime();
            write(l, "timed/" + (i % 8), data);
            ms[i] = (System.nanoTime() - t0) / 1e6;
        }
        Arrays.sort(ms);
        System.out.printf("%.3f%n", ms[count / 2]);
        l.AzureDeInit();
    }

    private static void write(QVAzurePlugInLibrary l, String name, byte[] data) {
        if (l.WriteObject(name, data, data.length).getOrdinalValue() != 0) {
            throw new IllegalStateException("WriteObject failed");
        }
    }
}
