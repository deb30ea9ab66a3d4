package com.qv.AzureLibrary;

/**
 * Run in a JVM of its own (BoundedListingTest starts it with a small heap):
 * connects with the connection string of its first argument, lists the
 * prefix of its second with GetObjectSubList and sums the container with
 * GetAllObjectsSize, and prints what came back in one line: the error
 * ordinals, the number of entries, how many of them are in order with the
 * names and properties the generated listing holds, the size sum, and the
 * heap the JVM had.
 */
public final class ListingProbe {
    private ListingProbe() {
    }

    public static void main(String[] args) {
        QVAzurePlugInLibrary l = new QVAzurePlugInLibrary(new CPluginInitData(null, null));
        int init = l.AzureInit(args[0], null).getOrdinalValue();
        CRetGetSubMetaDataList list = l.GetObjectSubList(args[1]);
        int listed = list.errorValue.getOrdinalValue();
        int entries = list.metaDat == null ? -1 : list.metaDat.length;
        int good = 0;
        for (int i = 0; i < Math.max(entries, 0); ++i) {
            CObjectSubListElement e = list.metaDat[i];
            boolean named = e.szFileName.equals(BoundedListingTest.name(i));
            boolean props = e.metaDat.length == 2 && e.metaDat[0].szPropertyName.equals("owner")
                && e.metaDat[0].val.szProperty.equals("nightly")
                && e.metaDat[1].szPropertyName.equals(QVAzurePlugInLibrary.ACCESS_TIER)
                && e.metaDat[1].val.szProperty.equals("Hot");
            good += named && props ? 1 : 0;
        }
        list = null; // the sum must not need the listing's memory
        CGetAccountSizeValue size = l.GetAllObjectsSize();
        System.out.println("init=" + init + " list=" + listed
                           + " entries=" + entries + " good=" + good + " size=" + size.errorValue.getOrdinalValue()
                           + ":" + size.size + " heap=" + Runtime.getRuntime().maxMemory());
    }
}
