package net.tolva.apps.cuebench.client.win.deskwright.event;

/** A mouse move or button; code is the Win32 message (512 to 520). */
public class MouseEvent extends WinEvent {
    private final int x;
    private final int y;
    private final int screenX;
    private final int screenY;
    private final int button;
    private final int modifiers;

    public MouseEvent(int type, long handle, int code, int x, int y, int screenX, int screenY, int button,
            int modifiers) {
        this(type, handle, code, x, y, screenX, screenY, button, modifiers, 0L);
    }

    public MouseEvent(int type, long handle, int code, int x, int y, int screenX, int screenY, int button,
            int modifiers, long timestamp) {
        super(type, handle, code, timestamp);
        this.x = x;
        this.y = y;
        this.screenX = screenX;
        this.screenY = screenY;
        this.button = button;
        this.modifiers = modifiers;
    }

    public int getX() { return x; }
    public int getY() { return y; }
    public int getScreenX() { return screenX; }
    public int getScreenY() { return screenY; }
    /** 0 left or none, 1 right, 2 middle. */
    public int getButton() { return button; }
    public int getModifiers() { return modifiers; }
}
