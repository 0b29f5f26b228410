package bundler;

import static java.nio.charset.StandardCharsets.ISO_8859_1;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDateTime;
import java.util.List;
import java.util.zip.ZipEntry;
import java.util.zip.ZipOutputStream;

/**
 * The entry class that calls an application's ordinary main. It is compiled once, against a class
 * Application in its own package, and completed here: in its constant pool, the name of the
 * application's class takes the place of Application's. That is as fast as source code that calls
 * the class, and it works for classes without a package, too. Where Java's access rules do not allow
 * the call, the class Application is added, which calls main by reflection.
 *
 * @param mainClass the application's class, with points in its name
 * @param isDirect whether main can be called without reflection
 */
record EntryClass(String mainClass, boolean isDirect) {
  private static final String PACKAGE = "com/norvale/app/daemon/entry/";
  /** The file of the entry class in a jar. */
  static final String FILE = PACKAGE + "NativeLauncher.class";
  /** The name by which a JVM finds it. */
  static final String NAME = PACKAGE + "NativeLauncher";
  private static final String CALLED_CLASS = PACKAGE + "Application";
  private static final String NAME_IN_APPLICATION = "the name of the application's class";

  /** Finds main in the jars as a JVM does, but runs none of their code. */
  static EntryClass calling(String mainClass, List<Path> jars) throws IOException {
    URL[] urls = new URL[jars.size()];
    for (int i = 0; i < urls.length; i++) {
      urls[i] = jars.get(i).toUri().toURL();
    }
    try (URLClassLoader loader =
        new URLClassLoader(urls, ClassLoader.getPlatformClassLoader())) {
      Class<?> type = Class.forName(mainClass, false, loader);
      if (type.getClassLoader() != loader) {
        throw new UserError("--main-class " + mainClass + " is a class of the JDK");
      }
      Method main = mainOf(type);
      boolean isDirect = Modifier.isPublic(type.getModifiers()) && !type.isInterface()
          && Modifier.isPublic(main.getModifiers());
      return new EntryClass(mainClass, isDirect);
    } catch (ClassNotFoundException e) {
      throw new UserError("no jar contains the class of --main-class " + mainClass);
    } catch (LinkageError e) {
      throw new UserError("the class of --main-class " + mainClass + " cannot be loaded: " + e);
    }
  }

  private static Method mainOf(Class<?> type) {
    for (Class<?> declaring = type; declaring != null; declaring = declaring.getSuperclass()) {
      for (Method method : declaring.getDeclaredMethods()) {
        int modifiers = method.getModifiers();
        if (method.getName().equals("main") && method.getReturnType() == void.class
            && List.of(method.getParameterTypes()).equals(List.of(String[].class))
            && Modifier.isStatic(modifiers) && !Modifier.isPrivate(modifiers)) {
          return method;
        }
      }
    }
    throw new UserError(
        "--main-class " + type.getName() + " has no method static void main(String[])");
  }

  void writeJar(Path jar) throws IOException {
    try (ZipOutputStream zip = new ZipOutputStream(Files.newOutputStream(jar))) {
      if (isDirect) {
        add(zip, NAME, CALLED_CLASS, mainClass.replace('.', '/'));
      } else {
        add(zip, NAME, CALLED_CLASS, CALLED_CLASS);
        add(zip, CALLED_CLASS, NAME_IN_APPLICATION, mainClass);
      }
    }
  }

  /** Adds a class in whose constant pool one text is replaced by another. */
  private static void add(ZipOutputStream zip, String name, String text, String replacement)
      throws IOException {
    ZipEntry entry = new ZipEntry(name + ".class");
    entry.setTimeLocal(LocalDateTime.of(2000, 1, 1, 0, 0)); // so that each run gives the same bytes
    zip.putNextEntry(entry);
    try (InputStream file = EntryClass.class.getResourceAsStream("/" + name + ".class")) {
      String bytes = new String(file.readAllBytes(), ISO_8859_1); // one character for each byte
      zip.write(bytes.replace(constant(text), constant(replacement)).getBytes(ISO_8859_1));
    }
  }

  /** A text as it stands in a constant pool: its length, and then itself. */
  private static String constant(String text) throws IOException {
    ByteArrayOutputStream bytes = new ByteArrayOutputStream();
    new DataOutputStream(bytes).writeUTF(text);
    return bytes.toString(ISO_8859_1);
  }
}
