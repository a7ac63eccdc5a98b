package net.tolva.apps.cuebench.client.win.deskwright;

import net.tolva.apps.cuebench.client.win.deskwright.event.WinEvent;

/**
 * The Java face of the native driver deskwright.dll. Every native method of
 * the driver is declared here; an instance is also the object that receives
 * the driver's events and check requests.
 *
 * Element handles are longs: 0 is no element, anything else names an element
 * until the driver drops it, after which the natives that take a handle throw
 * {@link InvalidHandleException}.
 */
public class DefaultDeskwright {

    static {
        if (!Boolean.getBoolean("deskwright.noload")) {
            System.loadLibrary("deskwright");
        }
    }

    // --- set-up, connection and preferences ---
    public native int SetupNativeLogging();
    public native int StartClient(String command);
    public native int AttachClient(int tid);
    public native int AttachClient(String title);
    public native int AttachUiaClient(String args, int timeoutMs);
    public native void CacheExistingWindowHandles();
    public native void DetachClient();
    public native int GetThreadId();
    public native boolean IsConnected();
    public native void TriggerThread();
    public native void Terminate();
    public native void SetPreference(String key, String value);
    public native String GetPreference(String key);

    // --- element queries ---
    public native long[] GetChildren(long handle);
    public native String[] GetChildrenWithAttributes(long handle, String[] names);
    public native String[] GetHierarchyWithAttributes(long handle, String[] names, long[] excluded);
    public native long GetParent(long handle);
    public native long GetNativeHandle(long handle);
    public native String GetClassName(long handle);
    public native String[] GetClassNames(long handle);
    public native int[] GetBounds(long handle);
    public native String GetAttribute(long handle, String name);
    public native String[] GetAttributes(long handle, String[] names);
    public native boolean SetAttribute(long handle, String name, String value);
    public native String EvalJS(long handle, String script);
    public native long[] GetToplevels();
    public native long[] GetElementsByProperty(long handle, String name, String value);
    public native long[] FindAllWindows(long handle);
    public native long GetElementFromPoint(int x, int y);
    public native boolean IsUia8();
    public native boolean SetTimeouts(int connectionTimeout, int transactionTimeout);
    public native void ReleaseControls();
    public native double GetScreenScaleFactor();

    // --- modes ---
    public native void EnableEventListeners(int mode);
    public native void EnableCheckMode(boolean enable, int mode);
    public native void EnableRecordingMode(boolean enable, int mode);

    // --- actions ---
    public native void Highlight(long handle, int duration, int color);
    public native void SimulateMouseEvent(long handle, int id, int button, int x, int y, int modifiers, int count);
    public native void SimulateKeyStroke(long handle, char c, int keyCode, int modifiers);
    public native void SetFocus(long handle);
    public native boolean Move(long handle, int x, int y);
    public native boolean Resize(long handle, int width, int height);
    public native boolean Close(long handle);
    public native boolean BringToFront(long handle);
    public native void DoDefaultAction(long handle);
    public native void Invoke(long handle);
    public native void Select(long handle, int mode);
    public native boolean Toggle(long handle, int mode);
    public native boolean Expand(long handle, boolean expand);
    public native void Scroll(long handle, double horizontal, double vertical);
    public native boolean ScrollIntoView(long handle);

    // --- plain windows ---
    public native String GetWindowClassName(long hwnd);
    public native String GetWindowText(long hwnd);
    public native boolean SetWindowText(long hwnd, String text);
    public native int GetWindowLong(long hwnd, int index);
    public native int SendMessage(long hwnd, int message, long wParam, long lParam);
    public native boolean PostMessage(long hwnd, int message, long wParam, long lParam);

    // --- called by the driver, on its dispatch thread ---

    /** Receives every event of the driver; the answer changes nothing on the native side. */
    public boolean filterEvent(WinEvent event) {
        return true;
    }

    /** The user is about to act on the element: prepare it for recording. */
    public void onPrepareRecording(long handle) {
    }

    /** Check mode: the default check on the element was asked for. */
    public void onDefaultCheck(long handle) {
    }

    /** Check mode: the labels of the context checks offered for the element. */
    public String[] onContextCheck(long handle) {
        return new String[0];
    }

    /** Check mode: the context check with the given index was chosen. */
    public void onCheckSelect(long handle, int index) {
    }
}
