package com.qv.AzureLibrary;

/**
 * Run in a JVM of its own, with the environment a platform gives (App
 * Service's IDENTITY_ENDPOINT and IDENTITY_HEADER): connects with the
 * connection string of its first argument, writes, reads back and deletes
 * one object, and prints the error ordinals and whether the bytes matched.
 */
public final class EntraProbe {
    private EntraProbe() {
    }

    public static void main(String[] args) {
        QVAzurePlugInLibrary l = new QVAzurePlugInLibrary(new CPluginInitData(null, null));
        int init = l.AzureInit(args[0], null).getOrdinalValue();
        byte[] data = "written with a managed identity".getBytes(java.nio.charset.StandardCharsets.US_ASCII);
        int write = l.WriteObject("probe/object", data, data.length).getOrdinalValue();
        byte[] back = new byte[data.length];
        CReadObjectFnValue r = l.ReadObject("probe/object", back, back.length, 0);
        int delete = l.DeleteObjectByName("probe/object").getOrdinalValue();
        System.out.println("init=" + init + " write=" + write + " read=" + r.errorValue.getOrdinalValue() + " same="
                           + java.util.Arrays.equals(data, back) + " delete=" + delete);
    }
}
