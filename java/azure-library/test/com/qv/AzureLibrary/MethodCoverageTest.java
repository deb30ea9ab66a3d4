package com.qv.AzureLibrary;

import static com.qv.AzureLibrary.TestSupport.asMap;
import static com.qv.AzureLibrary.TestSupport.assertError;
import static com.qv.AzureLibrary.TestSupport.assertOk;
import static com.qv.AzureLibrary.TestSupport.idOf;
import static com.qv.AzureLibrary.TestSupport.unique;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.qv.QVCloudPluginInterface.ERRORID;

import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeSet;
import java.util.function.Function;
import java.util.function.Predicate;
import java.util.stream.Collectors;

import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * Every public method of the library, from one table: a call that succeeds
 * on a connected library (with a check of what it answers), a call that
 * fails there and the error it must give, and the answer before AzureInit
 * (NOT_INITIALIZED, or NOT_SUPPORTED, or the same as after it for methods
 * that need no connection). Methods that send requests must also pass on a
 * refusal of the service (403 AuthenticationFailed from a proxy), and those
 * that do not must not notice it.
 */
class MethodCoverageTest {
    /** Covered elsewhere: connection strings in AzureLibraryAzuriteTest and KeySecrecyTest, options in RestPiecesTest. */
    private static final Set<String> COVERED_ELSEWHERE = Set.of("AzureInit(String,String)");
    /**
     * Methods with no way to fail once connected other than a failing
     * service, which the refusal test covers (or, for the stateless ones, none).
     */
    private static final Set<String> NO_FAILURE_WHEN_CONNECTED = Set.of(
        "GetListContainers()", "GetContainerName()", "GetUniqueAccountName()", "canBackup()",
        "GetDefaultObjectSizeRange()", "GetCloudPluginCapabilities()");

    private enum Kind {
        /** Sends requests: NOT_INITIALIZED before AzureInit, and reports the service's refusal. */
        NETWORK,
        /** Needs AzureInit but sends nothing. */
        LOCAL,
        /** Needs nothing: answers the same before and after AzureInit. */
        STATELESS,
        /** No equivalent in the Blob REST API: NOT_SUPPORTED, always. */
        UNSUPPORTED
    }

    private static final class Case {
        final String signature;
        final Kind kind;
        final Function<QVAzurePlugInLibrary, Object> call;
        Predicate<Object> check = r -> true;
        Function<QVAzurePlugInLibrary, Object> failing;
        ERRORID failure;
        Predicate<Object> rejection;
        /** Both calls get a library on a container of their own (they delete it, or need it empty). */
        boolean ownContainer;

        Case(String signature, Kind kind, Function<QVAzurePlugInLibrary, Object> call) {
            this.signature = signature;
            this.kind = kind;
            this.call = call;
        }

        Case check(Predicate<Object> p) {
            this.check = p;
            return this;
        }

        Case fails(ERRORID id, Function<QVAzurePlugInLibrary, Object> c) {
            this.failure = id;
            this.failing = c;
            return this;
        }

        /** For methods without an error path: a call whose answer says no. */
        Case rejects(Function<QVAzurePlugInLibrary, Object> c, Predicate<Object> p) {
            this.failing = c;
            this.rejection = p;
            return this;
        }

        Case ownContainer() {
            this.ownContainer = true;
            return this;
        }
    }

    private static final byte[] DATA = "0123456789".getBytes(java.nio.charset.StandardCharsets.US_ASCII);
    private static final CPluginMetaData[] META = {new CPluginMetaData("kind", "fixture")};

    private static AzuriteServer azurite;
    private static String container;
    private static QVAzurePlugInLibrary direct;
    private static String existing;
    private static String missing;

    private static String fresh() {
        return unique("cov/fresh/");
    }

    /** A fresh object of 10 bytes, for calls that change or delete one. */
    private static String written(QVAzurePlugInLibrary l) {
        String n = fresh();
        l.WriteObject(n, DATA, DATA.length);
        return n;
    }

    private static <T> Predicate<Object> is(Class<T> type, Predicate<T> p) {
        return o -> p.test(type.cast(o));
    }

    private static final List<Case> CASES = new ArrayList<>();

    private static Case add(String signature, Kind kind, Function<QVAzurePlugInLibrary, Object> call) {
        Case c = new Case(signature, kind, call);
        CASES.add(c);
        return c;
    }

    static {
        // ---- writes
        add("WriteObject(String,byte[],long)", Kind.NETWORK, l -> l.WriteObject(fresh(), DATA, 10))
            .fails(ERRORID.INVALID_OBJECT_NAME, l -> l.WriteObject("ends-with-slash/", DATA, 10));
        add("WriteObject(String,byte[],long,CPluginMetaData[])", Kind.NETWORK,
            l -> l.WriteObject(fresh(), DATA, 10, META))
            .check(is(CWObjectHandleFnValue.class, r -> r.objHandle.startsWith("cov/fresh/")))
            .fails(ERRORID.INVALID_ARGUMENT, l -> l.WriteObject(fresh(), DATA, 11, META));
        add("WriteObject(String,byte[],long,CPluginMetaData[],long)", Kind.NETWORK,
            l -> l.WriteObject(fresh(), DATA, 10, META, 0))
            .check(is(CWObjectHandleFnValue.class, r -> r.objHandle != null))
            .fails(ERRORID.INVALID_METADATA,
                   l -> l.WriteObject(fresh(), DATA, 10, new CPluginMetaData[] {new CPluginMetaData("", "v")}, 0));
        add("WriteCachedObject(String,byte[],long,CPluginMetaData[])", Kind.NETWORK,
            l -> l.WriteCachedObject(fresh(), DATA, 10, META))
            .check(is(CWObjectHandleFnValue.class, r -> r.objHandle != null))
            .fails(ERRORID.INVALID_HANDLE, l -> l.WriteCachedObject(null, DATA, 10, META));
        add("UpdateObject(String,String,byte[],long,CPluginMetaData[])", Kind.NETWORK,
            l -> l.UpdateObject(written(l), "", DATA, 5, META))
            .check(is(CCreateFnValue.class, r -> r.objHandle != null))
            .fails(ERRORID.INVALID_ARGUMENT, l -> l.UpdateObject(fresh(), "", DATA, -1, META));
        add("UpdateObject(String,String,byte[],long,CPluginMetaData[],long)", Kind.NETWORK,
            l -> l.UpdateObject(written(l), "", DATA, 5, null, 0))
            .fails(ERRORID.INVALID_HANDLE, l -> l.UpdateObject("", "", DATA, 5, null, 0));
        add("UpdateCachedObjectByHandle(String,String,byte[],long,CPluginMetaData[])", Kind.NETWORK,
            l -> l.UpdateCachedObjectByHandle(written(l), "", DATA, 5, META))
            .fails(ERRORID.INVALID_OBJECT_NAME, l -> l.UpdateCachedObjectByHandle("a\u0001b", "", DATA, 5, META));
        add("UpdateCachedObjectByName(String,byte[],long,CPluginMetaData[])", Kind.NETWORK,
            l -> l.UpdateCachedObjectByName(written(l), DATA, 5, META))
            .fails(ERRORID.INVALID_OBJECT_NAME, l -> l.UpdateCachedObjectByName("x".repeat(1025), DATA, 5, META));

        // ---- reads
        add("ReadObject(String,byte[],long,long)", Kind.NETWORK, l -> l.ReadObject(existing, new byte[20], 20, 0))
            .check(is(CReadObjectFnValue.class, r -> r.sizeRead == 10))
            .fails(ERRORID.NOT_FOUND, l -> l.ReadObject(missing, new byte[20], 20, 0));
        add("ReadObjectByName(String,byte[],long,long,String[])", Kind.NETWORK,
            l -> l.ReadObjectByName(existing, new byte[4], 2, 4, null))
            .check(is(CRObjectByNameFnValue.class,
                      r -> r.bytesRead == 4 && asMap(r.values).equals(Map.of("kind", "fixture"))))
            .fails(ERRORID.NOT_FOUND, l -> l.ReadObjectByName(missing, new byte[4], 0, 4, null));
        add("ReadObjectByHandle(String,byte[],long,long,String[])", Kind.NETWORK,
            l -> l.ReadObjectByHandle(existing, new byte[4], 8, 4, new String[] {"kind"}))
            .check(is(CRObjectByNameFnValue.class, r -> r.bytesRead == 2 && r.values.length == 1))
            .fails(ERRORID.INVALID_RANGE, l -> l.ReadObjectByHandle(existing, new byte[4], -1, 4, null));

        // ---- handles
        add("CreateObject(String)", Kind.NETWORK, l -> l.CreateObject(fresh()))
            .check(is(CCreateFnValue.class, r -> r.objHandle != null))
            .fails(ERRORID.ALREADY_EXISTS, l -> l.CreateObject(existing));
        add("CreateObject(String,CPluginMetaData[])", Kind.NETWORK, l -> l.CreateObject(fresh(), META))
            .fails(ERRORID.ALREADY_EXISTS, l -> l.CreateObject(existing, META));
        add("CreateCachedObject(String)", Kind.NETWORK, l -> l.CreateCachedObject(fresh()))
            .fails(ERRORID.ALREADY_EXISTS, l -> l.CreateCachedObject(existing));
        add("OpenObject(String)", Kind.NETWORK, l -> l.OpenObject(existing))
            .check(is(CCreateFnValue.class, r -> existing.equals(r.objHandle)))
            .fails(ERRORID.NOT_FOUND, l -> l.OpenObject(missing));
        add("OpenObject(String,boolean)", Kind.NETWORK, l -> l.OpenObject(fresh(), true))
            .check(is(CCreateFnValue.class, r -> r.objHandle != null))
            .fails(ERRORID.NOT_FOUND, l -> l.OpenObject(missing, false));
        add("CloseObject(String)", Kind.LOCAL, l -> l.CloseObject(existing))
            .fails(ERRORID.INVALID_HANDLE, l -> l.CloseObject(""));

        // ---- delete and existence
        add("DeleteObjectByName(String)", Kind.NETWORK, l -> l.DeleteObjectByName(written(l)))
            .fails(ERRORID.NOT_FOUND, l -> l.DeleteObjectByName(missing));
        add("DeleteObjectByHandle(String)", Kind.NETWORK, l -> l.DeleteObjectByHandle(written(l)))
            .fails(ERRORID.NOT_FOUND, l -> l.DeleteObjectByHandle(missing));
        add("DeleteObjectByHandle(String[])", Kind.NETWORK,
            l -> l.DeleteObjectByHandle(new String[] {written(l), null, written(l)}))
            .fails(ERRORID.INVALID_ARGUMENT, l -> l.DeleteObjectByHandle((String[]) null));
        add("DeleteCachedObjectByName(String)", Kind.NETWORK, l -> l.DeleteCachedObjectByName(written(l)))
            .fails(ERRORID.NOT_FOUND, l -> l.DeleteCachedObjectByName(missing));
        add("IsObjectExist(String)", Kind.NETWORK, l -> l.IsObjectExist(existing))
            .check(is(CIsObjectExistFnValue.class, r -> r.isExist))
            .fails(ERRORID.INVALID_HANDLE, l -> l.IsObjectExist(null));
        add("IsObjectPathSupported(String,int)", Kind.STATELESS, l -> l.IsObjectPathSupported("a/b/c.bin", 0))
            .check(is(CIsObjectExistFnValue.class, r -> r.isExist))
            .rejects(l -> l.IsObjectPathSupported("a/b/", 0), is(CIsObjectExistFnValue.class, r -> !r.isExist));

        // ---- metadata and sub-lists
        add("SetObjectMetaData(String,String,String)", Kind.NETWORK,
            l -> l.SetObjectMetaData(written(l), "Schlüssel", "Wert"))
            .fails(ERRORID.NOT_FOUND, l -> l.SetObjectMetaData(missing, "a", "b"));
        add("GetObjectMetaData(String,String)", Kind.NETWORK, l -> l.GetObjectMetaData(existing, "kind"))
            .check(is(CGetObjectMetaData.class, r -> "fixture".equals(r.value)))
            .fails(ERRORID.NOT_FOUND, l -> l.GetObjectMetaData(existing, "absent"));
        add("GetObjectMetaData(String)", Kind.NETWORK, l -> l.GetObjectMetaData(existing))
            .check(is(CGObjectMetaDataFnValue.class, r -> asMap(r.values).equals(Map.of("kind", "fixture"))))
            .fails(ERRORID.NOT_FOUND, l -> l.GetObjectMetaData(missing));
        add("GetObjectSubList(String)", Kind.NETWORK, l -> l.GetObjectSubList(null))
            .ownContainer()
            .check(is(CRetGetSubMetaDataList.class, r -> r.metaDat.length == 0))
            .fails(ERRORID.CONTAINER_NOT_FOUND, l -> {
                l.DeleteContainer();
                return l.GetObjectSubList(null);
            });

        // ---- containers
        add("GetListContainers()", Kind.NETWORK, QVAzurePlugInLibrary::GetListContainers)
            .check(is(QVListContainers.class,
                      r -> Arrays.stream(r.containers).anyMatch(c -> c.containerName.equals(container))));
        add("IsContainerExists(String)", Kind.NETWORK, l -> l.IsContainerExists(container))
            .check(is(com.qv.AmazonLibrary.CIsObjectExistFnValue.class, r -> r.isExist))
            .fails(ERRORID.INVALID_CONTAINER_NAME, l -> l.IsContainerExists("Not_A_Container"));
        add("IsValidContainer(String)", Kind.STATELESS, l -> l.IsValidContainer("good-name-1"))
            .check(is(CIsObjectExistFnValue.class, r -> r.isExist))
            .rejects(l -> l.IsValidContainer("bad--name"), is(CIsObjectExistFnValue.class, r -> !r.isExist));
        add("DeleteContainer()", Kind.NETWORK, QVAzurePlugInLibrary::DeleteContainer)
            .ownContainer()
            .fails(ERRORID.CONTAINER_NOT_FOUND, l -> {
                l.DeleteContainer();
                return l.DeleteContainer();
            });
        add("GetContainerName()", Kind.LOCAL, QVAzurePlugInLibrary::GetContainerName)
            .check(is(CUniqueAccountValue.class, r -> r.accountName.equals(container)));

        // ---- account and sizes
        add("GetAccountInfo()", Kind.NETWORK, QVAzurePlugInLibrary::GetAccountInfo)
            .ownContainer()
            .check(is(CGetAccountInfoFnValue.class,
                      r -> r.accountIndentity.equals(AzuriteServer.ACCOUNT) && r.usedSizeInByteTotal == 0
                           && r.remainedSizeInByteTotal > 0))
            .fails(ERRORID.CONTAINER_NOT_FOUND, l -> {
                l.DeleteContainer();
                return l.GetAccountInfo();
            });
        add("GetAllObjectsSize()", Kind.NETWORK, QVAzurePlugInLibrary::GetAllObjectsSize)
            .ownContainer()
            .check(is(CGetAccountSizeValue.class, r -> r.size == 0))
            .fails(ERRORID.CONTAINER_NOT_FOUND, l -> {
                l.DeleteContainer();
                return l.GetAllObjectsSize();
            });
        add("CheckConnectivity()", Kind.NETWORK, QVAzurePlugInLibrary::CheckConnectivity)
            .ownContainer()
            .fails(ERRORID.CONTAINER_NOT_FOUND, l -> {
                l.DeleteContainer();
                return l.CheckConnectivity();
            });
        add("GetUniqueAccountName()", Kind.LOCAL, QVAzurePlugInLibrary::GetUniqueAccountName)
            .check(is(CUniqueAccountValue.class, r -> r.accountName.equals(AzuriteServer.ACCOUNT)));
        add("canBackup()", Kind.LOCAL, QVAzurePlugInLibrary::canBackup)
            .check(is(com.qv.plugin.model.CInt.class, r -> r.value == 1));
        add("AzureDeInit()", Kind.LOCAL, QVAzurePlugInLibrary::AzureDeInit)
            .fails(ERRORID.NOT_INITIALIZED, l -> {
                l.AzureDeInit();
                return l.AzureDeInit();
            });
        add("GetObjectActualSize(long,long)", Kind.STATELESS, l -> l.GetObjectActualSize(10, 4))
            .check(r -> r.equals(12L))
            .rejects(l -> l.GetObjectActualSize(10, 0), r -> r.equals(10L));
        add("GetDefaultObjectSizeRange()", Kind.STATELESS, QVAzurePlugInLibrary::GetDefaultObjectSizeRange)
            .check(is(CGDefaultObjSizeRangeValue.class,
                      r -> 0 < r.minValue && r.minValue <= r.defaultValue && r.defaultValue <= r.maxValue));
        add("GetCloudPluginCapabilities()", Kind.STATELESS, QVAzurePlugInLibrary::GetCloudPluginCapabilities)
            .check(is(com.qv.QVCloudPluginInterface.CloudPluginCapabilities.class,
                      r -> "AzureBlob".equals(r.pluginCapabilities.get("Provider"))));

        // ---- no Blob REST equivalent
        add("GetArchiveSet()", Kind.UNSUPPORTED, QVAzurePlugInLibrary::GetArchiveSet);
        add("GetRegions()", Kind.UNSUPPORTED, QVAzurePlugInLibrary::GetRegions);
        add("GetBucketRegion(String)", Kind.UNSUPPORTED, l -> l.GetBucketRegion(container));
        add("GetOwnerName()", Kind.UNSUPPORTED, QVAzurePlugInLibrary::GetOwnerName);
        add("IsSameAccount(String,String)", Kind.UNSUPPORTED, l -> l.IsSameAccount("a", "a"));
        add("getStorageKey(String,String)", Kind.UNSUPPORTED, l -> l.getStorageKey("a", "b"));
        add("updateStorageKey()", Kind.UNSUPPORTED, QVAzurePlugInLibrary::updateStorageKey);
        add("getServerNameList()", Kind.UNSUPPORTED, QVAzurePlugInLibrary::getServerNameList);
        add("addJobInfo(long,long,long,long,long,long)", Kind.UNSUPPORTED, l -> l.addJobInfo(1, 2, 3, 4, 5, 6));
    }

    @BeforeAll
    static void fixture() throws Exception {
        azurite = AzuriteServer.get();
        container = TestSupport.uniqueContainer("cov");
        direct = TestSupport.connected(azurite.connectionString(container));
        existing = unique("cov/existing/");
        missing = unique("cov/missing/");
        assertOk(direct.WriteObject(existing, DATA, DATA.length, META), "fixture object");
    }

    @AfterAll
    static void cleanUp() {
        if (direct != null) {
            direct.DeleteContainer();
            direct.AzureDeInit();
        }
    }

    /** Runs a call on a library connected to the shared container, or to a container of its own. */
    private static Object onConnected(Case c, Function<QVAzurePlugInLibrary, Object> call, int endpointPort) {
        String target = c.ownContainer ? TestSupport.uniqueContainer("own") : container;
        QVAzurePlugInLibrary l = TestSupport.connected(AzuriteServer.connectionString(target, endpointPort, ""));
        try {
            return call.apply(l);
        } finally {
            if (c.ownContainer) {
                TestSupport.connected(azurite.connectionString(target)).DeleteContainer();
            }
            l.AzureDeInit();
        }
    }

    private static String signature(Method m) {
        return m.getName() + Arrays.stream(m.getParameterTypes()).map(Class::getSimpleName)
            .collect(Collectors.joining(",", "(", ")"));
    }

    @Test
    void theTableNamesEveryPublicMethod() {
        Set<String> published = new TreeSet<>();
        for (Method m : QVAzurePlugInLibrary.class.getDeclaredMethods()) {
            if (Modifier.isPublic(m.getModifiers()) && !Modifier.isStatic(m.getModifiers())) {
                published.add(signature(m));
            }
        }
        published.removeAll(COVERED_ELSEWHERE);
        Set<String> inTable = CASES.stream().map(c -> c.signature).collect(Collectors.toCollection(TreeSet::new));
        assertEquals(CASES.size(), inTable.size(), "a method is in the table twice");
        assertEquals(published, inTable);
        Set<String> withoutFailure = CASES.stream()
            .filter(c -> c.failing == null && c.kind != Kind.UNSUPPORTED).map(c -> c.signature)
            .collect(Collectors.toCollection(TreeSet::new));
        assertEquals(new TreeSet<>(NO_FAILURE_WHEN_CONNECTED), withoutFailure);
    }

    @Test
    void beforeAzureInitAndAfterAzureDeInit() {
        QVAzurePlugInLibrary never = TestSupport.newLibrary();
        QVAzurePlugInLibrary closed = TestSupport.connected(azurite.connectionString(container));
        assertOk(closed.AzureDeInit(), "AzureDeInit");
        for (QVAzurePlugInLibrary l : List.of(never, closed)) {
            for (Case c : CASES) {
                Object r = c.call.apply(l);
                switch (c.kind) {
                    case NETWORK:
                    case LOCAL:
                        assertError(ERRORID.NOT_INITIALIZED, r, c.signature);
                        break;
                    case UNSUPPORTED:
                        assertError(ERRORID.NOT_SUPPORTED, r, c.signature);
                        break;
                    case STATELESS:
                        assertTrue(idOf(r) == null || idOf(r) == ERRORID.SUCCESS, c.signature);
                        assertTrue(c.check.test(r), c.signature + " answers as after AzureInit");
                        break;
                }
            }
        }
    }

    @Test
    void eachCallSucceedsOnAConnectedLibrary() {
        for (Case c : CASES) {
            Object r = onConnected(c, c.call, azurite.port);
            if (c.kind == Kind.UNSUPPORTED) {
                assertError(ERRORID.NOT_SUPPORTED, r, c.signature);
                continue;
            }
            ERRORID id = idOf(r);
            assertTrue(id == null || id == ERRORID.SUCCESS, c.signature + " gave " + id);
            assertTrue(c.check.test(r), c.signature + " answered " + r);
        }
    }

    @Test
    void eachFailingCallGivesItsError() {
        for (Case c : CASES) {
            if (c.failing == null) {
                continue;
            }
            Object r = onConnected(c, c.failing, azurite.port);
            if (c.rejection != null) {
                assertTrue(c.rejection.test(r), c.signature + " should say no");
            } else {
                assertError(c.failure, r, c.signature);
            }
        }
    }

    @Test
    void aRefusingServiceIsReportedByEveryMethodThatAsksIt() throws Exception {
        try (FaultProxy proxy = new FaultProxy(azurite.port)) {
            for (Case c : CASES) {
                Object r = onConnected(c, l -> {
                    proxy.add(req -> true, FaultProxy.ALWAYS, FaultProxy.Fault.status(403, "AuthenticationFailed"));
                    try {
                        return c.call.apply(l);
                    } finally {
                        proxy.reset();
                    }
                }, proxy.port());
                switch (c.kind) {
                    case NETWORK:
                        assertError(ERRORID.AUTHENTICATION_FAILED, r, c.signature);
                        break;
                    case UNSUPPORTED:
                        assertError(ERRORID.NOT_SUPPORTED, r, c.signature);
                        break;
                    default:
                        ERRORID id = idOf(r);
                        assertTrue(id == null || id == ERRORID.SUCCESS, c.signature + " gave " + id);
                        assertTrue(c.check.test(r), c.signature);
                }
            }
        }
    }

    @Test
    void unsupportedAnswersCarryNoPayload() {
        QVAzurePlugInLibrary l = TestSupport.connected(azurite.connectionString(container));
        try {
            assertNull(l.GetArchiveSet().containers);
            assertNull(l.GetRegions().regionsList);
            assertNull(l.GetBucketRegion(container).objHandle);
            assertNull(l.GetOwnerName().accountName);
            assertNull(l.getStorageKey("a", "b").value);
            assertNull(l.updateStorageKey().value);
            assertNull(l.getServerNameList().arrayOfString);
            assertEquals(43, l.addJobInfo(0, 0, 0, 0, 0, 0).getOrdinalValue());
            assertTrue(!l.IsSameAccount("a", "b").isExist);
        } finally {
            l.AzureDeInit();
        }
    }
}
