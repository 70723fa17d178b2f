// Runs the tests of one class: every public method of it, in a new object each. Prints what
// failed and exits with 1, or prints how many passed.
using System;
using System.IO;
using System.Linq;
using System.Reflection;
using System.Runtime.ExceptionServices;

public static class Runner
{
    public static int Main(string[] arguments)
    {
        Type type = arguments.Length == 1 ? Type.GetType(arguments[0]) : null;
        if (type == null)
        {
            Console.Error.WriteLine("usage: tests.exe CLASS");
            return 2;
        }
        var tests = type.GetMethods(BindingFlags.Public | BindingFlags.Instance | BindingFlags.DeclaredOnly)
            .Where(method => method.GetParameters().Length == 0 && method.Name != "Dispose").ToList();
        int failed = tests.Count(test => !Passes(type, test));
        if (tests.Count == 0 || failed > 0)
        {
            Console.WriteLine("FAILED: " + failed + " of " + tests.Count);
            return 1;
        }
        Console.WriteLine(tests.Count + " passed");
        return 0;
    }

    private static bool Passes(Type type, MethodInfo test)
    {
        try
        {
            object fixture = Activator.CreateInstance(type);
            try
            {
                test.Invoke(fixture, null);
            }
            finally
            {
                if (fixture is IDisposable) ((IDisposable)fixture).Dispose();
            }
            return true;
        }
        catch (Exception error)
        {
            Console.WriteLine(type.Name + "." + test.Name + ": " + (error.InnerException ?? error));
            return false;
        }
    }
}

/// <summary>What a test expects.</summary>
public static class Expect
{
    public static void True(bool condition, string what)
    {
        if (!condition) throw new Exception("not so: " + what);
    }

    public static void Equal<T>(T expected, T found)
    {
        if (!Equals(expected, found)) throw new Exception("expected " + expected + ", found " + found);
    }

    public static void Same<T>(T[] expected, T[] found)
    {
        Equal(string.Join(" ", expected), string.Join(" ", found));
    }

    /// <summary>An exception of exactly this class, which is returned.</summary>
    public static TException Throws<TException>(Action action) where TException : Exception
    {
        try
        {
            action();
        }
        catch (Exception error)
        {
            if (error.GetType() == typeof(TException)) return (TException)error;
            ExceptionDispatchInfo.Capture(error).Throw();
        }
        throw new Exception("no " + typeof(TException).Name + " was thrown");
    }
}

/// <summary>Directories that go with the test.</summary>
public abstract class HomeTest : IDisposable
{
    protected readonly string Root = Path.Combine(Path.GetTempPath(), "tessera-test-" + Guid.NewGuid());
    protected readonly string Home;

    protected HomeTest()
    {
        Home = NewHome("home");
    }

    protected string NewHome(string name)
    {
        return Directory.CreateDirectory(Path.Combine(Root, name)).FullName;
    }

    public virtual void Dispose()
    {
        Directory.Delete(Root, true);
    }
}
